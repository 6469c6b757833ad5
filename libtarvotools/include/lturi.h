//===- lturi.h - The platform's URI vocabulary and the LtUri class --------===//
///
/// \file
/// The vocabulary: fixed, exported string constants for the schemes, authorities, path words,
/// query keys and query values that the platform's channel and media URIs are made of, so
/// that every component spells them alike. Some texts differ from their identifiers and are
/// kept that way because stored URIs use them: Scheme::YouTube is "youtubev3",
/// Query::DiseqcAttr is "attr", Query::videoPid / audioPid / pcrPid are "svideopid" /
/// "saudiopid" / "spcrpid" while Query::VideoPid / AudioPid / PcrPid are "videopid" /
/// "audiopid" / "pcrpid", Query::AtscType is "atscType" (upper-case T), Value::Auto_Cvbs_Yc is
/// "auto_yc_cvbs", and BroadcastStd, ServiceSAP, PhysicalChannelIndex and CableFlag are
/// "brdstd", "srvsap", "phychanind" and "cabflg".
///
/// The constants are built during the library's static initialisation, in the order they are
/// declared here, and destroyed at exit: code in other libraries' static initialisers must not
/// rely on them yet. Texts compare case-sensitively everywhere.
///
/// LtUri splits a URI into scheme, authority, path, ordered query items and fragment, and
/// writes it back. It takes and gives plain strings and does not check them against the
/// vocabulary. Its parser never rejects input.
///
//===----------------------------------------------------------------------===//
#ifndef LTURI_H
#define LTURI_H

#include <map>
#include <string>
#include <vector>

#include "ltexport.h"

namespace ta {
namespace tarvotools {
/// The platform's URI vocabulary and the LtUri class.
namespace uri {

/// The part before the first ':'.
namespace Scheme {
LT_EXPORT extern std::string Http;       ///< "http"
LT_EXPORT extern std::string File;       ///< "file"
LT_EXPORT extern std::string Rec;        ///< "rec"
LT_EXPORT extern std::string Fsl2;       ///< "fsl2"
LT_EXPORT extern std::string Output;     ///< "output"
LT_EXPORT extern std::string Https;      ///< "https"
LT_EXPORT extern std::string Mms;        ///< "mms"
LT_EXPORT extern std::string Mme;        ///< "mme"
LT_EXPORT extern std::string Mmsh;       ///< "mmsh"
LT_EXPORT extern std::string External;   ///< "external"
LT_EXPORT extern std::string YouTube;    ///< "youtubev3"
LT_EXPORT extern std::string YouTubeV4;  ///< "youtubev4"
LT_EXPORT extern std::string Ruda;       ///< "ruda"
LT_EXPORT extern std::string Ginga;      ///< "ginga"
LT_EXPORT extern std::string Miracast;   ///< "miracast"
LT_EXPORT extern std::string Rtp;        ///< "rtp"
LT_EXPORT extern std::string Rtsp;       ///< "rtsp"
}  // namespace Scheme

/// The part after "//".
namespace Authority {
LT_EXPORT extern std::string Plain;        ///< "plain"
LT_EXPORT extern std::string Servicelist;  ///< "servicelist"
}  // namespace Authority

/// Path words: service-list selectors, broadcast systems, external inputs, media kinds.
namespace Path {
LT_EXPORT extern std::string Lcn;        ///< "lcn"
LT_EXPORT extern std::string Uid;        ///< "uid"
LT_EXPORT extern std::string Search;     ///< "search"
LT_EXPORT extern std::string Dvbt;       ///< "dvbt"
LT_EXPORT extern std::string Dvbc;       ///< "dvbc"
LT_EXPORT extern std::string Dvbs;       ///< "dvbs"
LT_EXPORT extern std::string Dvbip;      ///< "dvbip"
LT_EXPORT extern std::string Analog;     ///< "analog"
LT_EXPORT extern std::string Atsc;       ///< "atsc"
LT_EXPORT extern std::string AtscAtv;    ///< "atscatv"
LT_EXPORT extern std::string Isdb;       ///< "isdb"
LT_EXPORT extern std::string Hdmi;       ///< "hdmi"
LT_EXPORT extern std::string Avs;        ///< "avs"
LT_EXPORT extern std::string Vga;        ///< "vga"
LT_EXPORT extern std::string Component;  ///< "component"
LT_EXPORT extern std::string Scart;      ///< "scart"
LT_EXPORT extern std::string PcIn;       ///< "pcin"
LT_EXPORT extern std::string SpdifIn;    ///< "spdifin"
LT_EXPORT extern std::string Stream;     ///< "stream"
LT_EXPORT extern std::string Sample;     ///< "sample"
LT_EXPORT extern std::string Expansion;  ///< "expansion"
}  // namespace Path

/// Keys of the query part. The meaning of their values belongs to the components that use them.
namespace Query {
LT_EXPORT extern std::string Id;                    ///< "id"
LT_EXPORT extern std::string Onid;                  ///< "onid"
LT_EXPORT extern std::string Tsid;                  ///< "tsid"
LT_EXPORT extern std::string Sid;                   ///< "sid"
LT_EXPORT extern std::string Frontend;              ///< "frontend"
LT_EXPORT extern std::string SatId;                 ///< "satid"
LT_EXPORT extern std::string SatIndex;              ///< "satindex"
LT_EXPORT extern std::string DiseqcAttr;            ///< "attr"
LT_EXPORT extern std::string bissKey;               ///< "bisskey"
LT_EXPORT extern std::string Frequency;             ///< "frequency"
LT_EXPORT extern std::string Symbolrate;            ///< "symbolrate"
LT_EXPORT extern std::string Bandwidth;             ///< "bandwidth"
LT_EXPORT extern std::string HdTv;                  ///< "hdtv"
LT_EXPORT extern std::string Inversion;             ///< "inversion"
LT_EXPORT extern std::string DvbtPriority;          ///< "dvbtpriority"
LT_EXPORT extern std::string PlpId;                 ///< "plpid"
LT_EXPORT extern std::string GroupId;               ///< "groupid"
LT_EXPORT extern std::string Modulation;            ///< "modulation"
LT_EXPORT extern std::string DataSliceId;           ///< "datasliceid"
LT_EXPORT extern std::string Polarization;          ///< "polarization"
LT_EXPORT extern std::string Band;                  ///< "band"
LT_EXPORT extern std::string ModCod;                ///< "modcod"
LT_EXPORT extern std::string CodeRate;              ///< "coderate"
LT_EXPORT extern std::string videoPid;              ///< "svideopid"
LT_EXPORT extern std::string audioPid;              ///< "saudiopid"
LT_EXPORT extern std::string pcrPid;                ///< "spcrpid"
LT_EXPORT extern std::string VideoStreamType;       ///< "videostreamtype"
LT_EXPORT extern std::string AudioStreamType;       ///< "audiostreamtype"
LT_EXPORT extern std::string VideoPid;              ///< "videopid"
LT_EXPORT extern std::string AudioPid;              ///< "audiopid"
LT_EXPORT extern std::string PcrPid;                ///< "pcrpid"
LT_EXPORT extern std::string TtxPid;                ///< "ttxpid"
LT_EXPORT extern std::string SubtitlePid;           ///< "subtitlepid"
LT_EXPORT extern std::string ColStd;                ///< "colstd"
LT_EXPORT extern std::string BroadcastStd;          ///< "brdstd"
LT_EXPORT extern std::string ServiceSAP;            ///< "srvsap"
LT_EXPORT extern std::string PhysicalChannelIndex;  ///< "phychanind"
LT_EXPORT extern std::string CableFlag;             ///< "cabflg"
LT_EXPORT extern std::string SlotConfig;            ///< "slotconfig"
LT_EXPORT extern std::string Encrypted;             ///< "encrypted"
LT_EXPORT extern std::string ViaCam;                ///< "viacam"
LT_EXPORT extern std::string ViaTuner;              ///< "viatuner"
LT_EXPORT extern std::string Key;                   ///< "key"
LT_EXPORT extern std::string Position;              ///< "position"
LT_EXPORT extern std::string Speed;                 ///< "speed"
LT_EXPORT extern std::string SignalType;            ///< "signaltype"
LT_EXPORT extern std::string OutputSignalType;      ///< "outputsignaltype"
LT_EXPORT extern std::string Url;                   ///< "url"; its values are escaped
LT_EXPORT extern std::string AtscType;              ///< "atscType"
}  // namespace Query

/// Values of the signal-type keys for analogue video inputs.
namespace Value {
LT_EXPORT extern std::string Rgb;           ///< "rgb"
LT_EXPORT extern std::string Cvbs;          ///< "cvbs"
LT_EXPORT extern std::string Yc;            ///< "yc"
LT_EXPORT extern std::string Auto_Cvbs_Yc;  ///< "auto_yc_cvbs"
}  // namespace Value

/// One URI: scheme "://" authority "/" path "?" key "=" value "&" ... "#" fragment.
///
/// Parsing is one lenient left-to-right pass that never fails; whatever it cannot place stays
/// in the text or lands in the next field. Kept parser rules callers see:
///   - the scheme is lower-cased (C library tolower); nothing else changes case;
///   - without "//", the character after ':' is skipped: "file:/mnt/a" has the path "mnt/a";
///   - "///" leaves the third '/' in the path: "file:///mnt/a" has the path "/mnt/a";
///   - for the "file" scheme '#' is part of the path; other schemes end the path at '#';
///   - a key runs up to the next '=' wherever it is: "s://a?x&y=1" has the one key "x&y";
///   - a bare key with no later '=' ends the query: "?a&b" is item "a" and fragment "b";
///   - no percent-decoding is done, except that "url" values are kept escaped (see addQuery).
///
/// Query keys are unique in the map and listed in order of first addition. Not thread-safe:
/// even getUri(), though const, rewrites the cached text, so one object needs one user at a
/// time.
class LT_EXPORT LtUri {
public:
    /// States of the parser; the values are fixed.
    enum parseState_enum {
        ParseDone = 0,       ///< nothing more to read
        ParseScheme = 1,     ///< up to ':'
        ParseAuthority = 2,  ///< the optional "//" authority
        ParsePath = 3,       ///< the path
        ParseQuery = 4,      ///< one query item per step
        ParseFragment = 5,   ///< the rest of the text
    };

    /// Keeps `uri` as the text and parses it.
    LtUri(const std::string& uri);

    /// From parts, unparsed: the scheme is lower-cased, authority and path are kept as given;
    /// text, fragment and queries start empty.
    LtUri(const std::string& scheme, const std::string& authority, const std::string& path);

    virtual ~LtUri();

    /// Runs the parser over `text`. Members are not reset first: fields the text does not reach
    /// keep their values and its items are added to the present ones. Meant for a fresh object.
    void parse(const std::string& text);

    /// One parser step from `position` in `state`; updates `state` and returns where the next
    /// step starts (UINT_MAX when no further delimiter was found).
    unsigned doit(parseState_enum& state, const std::string& text, unsigned& position);

    ///@{
    /// A part as parsed or given; empty when there was none.
    std::string getScheme() const;
    std::string getAuthority() const;
    std::string getPath() const;
    std::string getFragment() const;
    ///@}
    /// Replaces the fragment as given; nothing is escaped.
    void setFragment(const std::string& fragment);

    /// Sets the item `key`; an existing key keeps its place. A "url" value (exactly Query::Url,
    /// case-sensitive) is stored escaped by codingReservedUrlChars. Returns 0.
    int addQuery(const std::string& key, const std::string& value);

    /// Sets the item `key` to the decimal text of `value` from boost::lexical_cast, which uses
    /// the global locale's digit grouping when that locale is not the classic one. No "url"
    /// escaping. Returns 0, or -1 (with a debug message) when the conversion fails.
    int addQuery(const std::string& key, const unsigned int& value);

    /// Copies the value of `key` into `value` (unescaped for "url"). Returns 0, or -1 when the
    /// key is absent, leaving `value` alone.
    int getValue(const std::string& key, std::string& value) const;

    /// Converts the value of `key` with boost::lexical_cast<unsigned int>: decimal digits with
    /// an optional sign, where "-1" gives 4294967295. Returns 0, or -1 when the key is absent or
    /// the value does not convert (debug message), leaving `value` alone.
    int getValue(const std::string& key, unsigned int& value) const;

    /// Removes the item `key`; returns 0. Kept key-list quirk: when the key is the last entry
    /// it stays listed; otherwise the later entries move up one place and the list keeps its
    /// length, ending in an empty entry. getQueryKeys() can so list removed or empty keys, and
    /// re-adding a key that stayed listed lists it twice, so getUri() writes it twice.
    int removeQuery(const std::string& key);

    /// Removes every item and empties the key list.
    void removeQueries();

    /// Keys in order of first addition, including the stale entries removeQuery leaves.
    const std::vector<std::string>& getQueryKeys() const;

    /// Escapes: '&' becomes "%26", '#' becomes "%23"; nothing else changes. (The names are
    /// the wrong way round, "coding" escapes and "encoding" unescapes; both are kept.)
    std::string codingReservedUrlChars(const std::string& text) const;

    /// Undoes codingReservedUrlChars: "%26" becomes '&', then "%23" becomes '#'. No other
    /// percent sequence is decoded.
    std::string encodingReservedUrlChars(const std::string& text) const;

    /// The URI as text. With an empty scheme, the text given to the constructor is returned
    /// unchanged (queries and fragment are not written). Otherwise: scheme "://", then the
    /// authority and "/" path, or the bare path when there is no authority; then each listed
    /// key still present, preceded by "?" at list position 0 and "&" at any other position,
    /// with "=" value unless the value is empty; then "#" fragment if there is one. Rewrites
    /// the cached text each time.
    std::string getUri() const;

private:
    friend struct ltAbiLayout;  // the ABI test reads the field offsets; nothing else
    mutable std::string uri_;  // the parsed text, or the last composition of getUri()
    std::string scheme_;       // always lower case
    std::string authority_;
    std::string path_;
    std::string fragment_;
    std::vector<std::string> queryKeys_;         // every key of queries_, plus stale entries
    std::map<std::string, std::string> queries_;  // values by key, byte-wise order
};

}  // namespace uri
}  // namespace tarvotools
}  // namespace ta

#endif // LTURI_H
