/*
 * A helper with the tests' own command table, served by the real helper main
 * program: "VerifyPrivs" answers what WL_TEST_VERIFY_ANSWER says, "OpenPipes"
 * returns the read ends of "count" pipes each holding "pipe <n>", and
 * "NeedsRight" names a polkit right and then answers as "VerifyPrivs" does.
 */
#include <WLCaptureAssistant/GatewardenLib.h>
#include <WLCaptureAssistant/WLCaptureAssistantCommon.h>

#include <stdio.h>
#include <stdlib.h>
#include <unistd.h>

WL_EMBED_INFO_PLIST("org.wireloom.test.WLCaptureAssistant", WL_CAPTURE_ASSISTANT_VERSION);

static int32_t VerifyPrivs(GWDAuthorizationRef authorization, const void* userData, plist_t request, plist_t response,
                           GWDLogClientRef logClient, GWDLogMessageRef logMessage) {
    (void)authorization, (void)userData, (void)request, (void)logClient, (void)logMessage;
    const char* answer = getenv("WL_TEST_VERIFY_ANSWER");
    plist_dict_set_item(response, kWLResponseKey, plist_new_string(answer != NULL ? answer : "Not verified"));
    return 0;
}

static int32_t OpenPipes(GWDAuthorizationRef authorization, const void* userData, plist_t request, plist_t response,
                         GWDLogClientRef logClient, GWDLogMessageRef logMessage) {
    (void)authorization, (void)userData, (void)logClient, (void)logMessage;
    uint64_t count = 0;
    plist_get_uint_val(plist_dict_get_item(request, "count"), &count);
    plist_t descriptors = plist_new_array();
    for (uint64_t i = 0; i < count && i < 16; i++) {
        int ends[2];
        if (pipe(ends) < 0) break;
        char text[32];
        int length = snprintf(text, sizeof(text), "pipe %u", (unsigned)i);
        if (write(ends[1], text, (size_t)length) != length) return GWDErrnoToOSStatus(5);
        close(ends[1]);
        plist_array_append_item(descriptors, plist_new_uint((uint64_t)ends[0]));
    }
    plist_dict_set_item(response, kGWDDescriptorsKey, descriptors);
    return 0;
}

static const GWDCommandSpec kCommands[] = {
    {"VerifyPrivs", NULL, NULL, NULL, NULL},
    {"OpenPipes", NULL, NULL, NULL, NULL},
    {"NeedsRight", "org.wireloom.test.needs-right", "auth_admin", "NeedsRightDescription", NULL},
    {NULL, NULL, NULL, NULL, NULL},
};
static const GWDCommandProc kProcs[] = {VerifyPrivs, OpenPipes, VerifyPrivs, NULL};

int main(void) { return GWDHelperToolMain(kCommands, kProcs); }
