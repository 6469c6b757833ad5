// dlopen and dlclose are interposed to record the loader's calls and to accept its mode 0.
#include "ltpluginloader.h"

#include <gtest/gtest.h>

#include <dlfcn.h>

#include <string>
#include <vector>

static std::vector<int> openModes;  // the mode of every dlopen call
static std::vector<void*> closed;   // the handle of every dlclose call

template <typename Fn>
static Fn next(const char* name) { return reinterpret_cast<Fn>(dlsym(RTLD_NEXT, name)); }

extern "C" void* dlopen(const char* path, int mode)
{
    openModes.push_back(mode);
    static const auto realOpen = next<void* (*)(const char*, int)>("dlopen");
    return realOpen(path, mode == 0 ? RTLD_NOW : mode);
}

extern "C" int dlclose(void* handle)
{
    closed.push_back(handle);
    static const auto realClose = next<int (*)(void*)>("dlclose");
    return realClose(handle);
}

namespace {

TEST(PluginLoader, RefusesWithoutAPathAndPassesModeZeroAsItStands)
{
    ltPluginLoader loader;
    EXPECT_EQ(-1, loader.load());  // no path yet
    EXPECT_EQ(nullptr, loader.lookupSymbol("ltPluginSampleAnswer"));
    EXPECT_EQ(0, loader.setURI("/nonexistent/plugin.so"));
    EXPECT_EQ(-1, loader.load());
    EXPECT_EQ(0, loader.setURI(nullptr));  // forgets the path: no dlopen call
    EXPECT_EQ(-1, loader.load());
    EXPECT_FALSE(loader.isLoaded());
    EXPECT_EQ((std::vector<int>{0}), openModes);  // the mode word is exactly 0
    EXPECT_TRUE(closed.empty());

    // Pinned for the whole run, so closing one handle several times never unmaps it.
    void* pinned = dlopen(LT_PLUGIN_SAMPLE_PATH, RTLD_NOW | RTLD_NODELETE);
    ASSERT_NE(nullptr, pinned) << dlerror();
    openModes.clear(), closed.clear();
    {
        ltPluginLoader loader;
        std::string path = LT_PLUGIN_SAMPLE_PATH;
        loader.setURI("/nonexistent/first.so");
        loader.setURI(path.c_str());
        path.assign(path.size(), 'x');  // the loader keeps its own copy
        ASSERT_EQ(0, loader.load());
        auto answer = reinterpret_cast<int (*)()>(loader.lookupSymbol("ltPluginSampleAnswer"));
        ASSERT_NE(nullptr, answer);
        EXPECT_EQ(42, answer());
        EXPECT_EQ(nullptr, loader.lookupSymbol(nullptr));
        EXPECT_EQ(-1, loader.load());  // already loaded
        EXPECT_EQ(0, loader.unload());
        EXPECT_TRUE(loader.isLoaded());  // the handle is kept after unload
        EXPECT_EQ(0, loader.unload());
    }
    EXPECT_EQ((std::vector<int>{0}), openModes);  // refused loads never reach dlopen
    // Two unloads and the destructor close the one handle three times.
    EXPECT_EQ((std::vector<void*>{pinned, pinned, pinned}), closed);
}

}  // namespace
