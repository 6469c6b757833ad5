//===- ltpluginloader.h - Opening one shared object by path ---------------===//
///
/// \class ltPluginLoader
/// ltPluginLoader is a thin wrapper over the dynamic loader: it keeps a private copy of a
/// path, opens that shared object once with dlopen, looks symbols up in it with dlsym and
/// closes it with dlclose. Nothing is logged and dlerror() is never consulted.
///
/// Kept quirks a caller must know:
///   - load() calls dlopen with the mode word 0 (neither RTLD_LAZY nor RTLD_NOW). glibc refuses
///     that mode, so with glibc every load() returns -1; kept as it stands for the C libraries
///     the platform ships, which accept it.
///   - unload() closes the object but keeps the handle: isLoaded() stays true, load() keeps
///     refusing, and a second unload() (or the destructor) closes the same handle again. An
///     object is good for one successful load.
///
/// No lock is taken: one thread at a time per object.
///
//===----------------------------------------------------------------------===//
#ifndef LTPLUGINLOADER_H
#define LTPLUGINLOADER_H

#include "ltexport.h"

class LT_EXPORT ltPluginLoader {
public:
    /// No path, nothing opened.
    ltPluginLoader();
    /// unload(), then frees the stored path.
    ~ltPluginLoader();

    ltPluginLoader(const ltPluginLoader&) = delete;
    ltPluginLoader& operator=(const ltPluginLoader&) = delete;

    /// Replaces the stored path with a copy of 'uri' (a null 'uri', or a copy that cannot be
    /// made, leaves no path, which load() then rejects). An object already loaded stays
    /// loaded. Always returns 0.
    int setURI(const char* uri);

    /// Opens the stored path with dlopen(path, 0). Returns 0 when it was opened, -1 when the
    /// object is already loaded (the handle is kept), when no path is stored or when dlopen
    /// failed (always, with glibc; see above).
    int load();

    /// The address of 'symbol' in the opened object, or null when nothing is loaded or the
    /// symbol is missing.
    void* lookupSymbol(const char* symbol) const;

    /// True once load() has succeeded, and still after unload() (kept; see above).
    bool isLoaded() const;

    /// Closes the object if a handle is set; the handle is kept (see above). Always returns 0.
    int unload();

private:
    friend struct ltAbiLayout;  // the ABI test reads the field offsets; nothing else
    void* handle;  // from dlopen; null until a load succeeds, never reset
    char* uri;     // owned copy of the path (strdup / free); null until setURI
};

#endif // LTPLUGINLOADER_H
