#ifndef WL_CAPTURE_ASSISTANT_COMMON_H
#define WL_CAPTURE_ASSISTANT_COMMON_H
/* What the capture assistant and its helper tool agree on: the helper's
   identifier and its command table. */

#include "GatewardenLib.h"

#ifdef __cplusplus
extern "C" {
#endif

/* The helper's service label, the file name of its executable and the
   identifier of its socket, "/var/run/org.wireloom.WLCaptureAssistant.socket". */
#define WLCaptureAssistantLabel "org.wireloom.WLCaptureAssistant"

#define kWLVerifyPrivsCommand "VerifyPrivs"
#define kWLShutdownHelperCommand "ShutdownHelper"
#define kWLSetBPFAccessCommand "SetBPFAccess"

/* The group that may read the packet-filter devices. */
#define kWLAccessBPFGroup "access_bpf"

/* VerifyPrivs answers kWLVerifiedAnswer under kWLResponseKey when the
   helper runs as root; SetBPFAccess reads kWLUserKey and, on failure, answers
   a description under kWLErrorKey. */
#define kWLResponseKey "response"
#define kWLVerifiedAnswer "Verified"
#define kWLUserKey "user"
#define kWLErrorKey "error"

/* In this order: VerifyPrivs, ShutdownHelper, SetBPFAccess. None names a
   right: the helper decides from the peer's credentials instead. */
extern const GWDCommandSpec kWLUpdateHelperCommandSet[];

/* The name of the ELF section holding an executable's information property
   list, and the key of its integer version in that list. */
#define kWLInfoPlistSection ".wl_info_plist"
#define kWLBundleVersionKey "BundleVersion"

/* Embeds an executable's information property list, read back from the
   installed and the shipped helper to compare their versions. */
#define WL_INFO_PLIST_STRING(x) #x
#define WL_EMBED_INFO_PLIST(identifier, version) \
    __attribute__((section(kWLInfoPlistSection), used)) static const char kWLInfoPlist[] =         \
        "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n<plist version=\"1.0\">\n<dict>\n"            \
        "<key>BundleIdentifier</key><string>" identifier "</string>\n"                           \
        "<key>" kWLBundleVersionKey "</key><integer>" WL_INFO_PLIST_STRING(version) "</integer>\n" \
        "</dict>\n</plist>\n"

#ifdef __cplusplus
}
#endif

#endif
