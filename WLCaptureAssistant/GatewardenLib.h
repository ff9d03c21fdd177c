#ifndef GATEWARDEN_LIB_H
#define GATEWARDEN_LIB_H
/*
 * GatewardenLib: the request protocol between the capture library and its
 * privileged helper. A client sends one request per connection to the
 * helper's local socket "/var/run/<identifier>.socket"; the helper runs the
 * named command from its command table and answers with a response
 * dictionary, optionally followed by open file descriptors.
 *
 *   plist_t request = plist_new_dict();
 *   plist_dict_set_item(request, kGWDCommandKey, plist_new_string("VerifyPrivs"));
 *   plist_t response = NULL;
 *   int32_t status = GWDExecuteRequestInHelperTool(auth, commands, identifier, request, &response, NULL);
 *   if (status == 0) status = GWDGetErrorFromResponse(response);
 *
 * Every function returns an integer status: 0 for success, an errno value
 * inside the helper, and on the client the statuses below, errno values
 * carried as 100000 + errno, or an authorization status.
 *
 * Dictionaries are libplist dictionaries; on the wire they travel as XML
 * property lists, never binary ones.
 */

#include <plist/plist.h>
#include <stddef.h>
#include <stdint.h>

#include "GWDAuthorization.h"

#ifdef __cplusplus
extern "C" {
#endif

/* Statuses of the client side beyond errno values and authorization. */
enum {
    kGWDStatusParameterError = -50,
    kGWDStatusOutOfMemory = -108,
    kGWDStatusUserCanceled = -128,
    kGWDStatusUnexpected = -4960, /* the property-list library failed */
};

/* An errno value e travels as kGWDErrnoStatusBase + e. */
#define kGWDErrnoStatusBase 100000

#define kGWDCommandKey "org.wireloom.Gatewarden.command"
#define kGWDResponseErrorKey "org.wireloom.Gatewarden.error"
#define kGWDDescriptorsKey "org.wireloom.Gatewarden.descriptors"

/* The largest single read or write, and the largest dictionary body. */
#define kGWDMaxNumberOfKBytes (1024 * 1024)
#define kGWDBinaryPlistWatermark "bplist"

/* The socket path format; the formatted path must be shorter than
   kGWDSocketPathLimit, the portable size of a local socket's path field. */
#define kGWDSocketPathFormat "/var/run/%s.socket"
#define kGWDSocketPathLimit 104

/* Log levels of the helper's system log (ident "HelperTools"). */
enum { kGWDLogError = 3, kGWDLogWarning = 4, kGWDLogInfo = 6, kGWDLogDebug = 7 };

/* The log handles a command procedure receives: the connection's log client
   and the message template naming the peer of the request. */
typedef struct GWDLogClient* GWDLogClientRef;
typedef struct GWDLogMessage* GWDLogMessageRef;

/* Logs one line through the helper's log; the peer named by the message
   template, if any, is appended. */
void GWDLog(GWDLogClientRef client, GWDLogMessageRef message, int level, const char* format, ...)
    __attribute__((format(printf, 4, 5)));

/* One command of a command table; the table ends with an entry whose
   commandName is NULL. rightDefaultRule and rightDescriptionKey are NULL
   exactly when rightName is. */
typedef struct {
    const char* commandName;
    const char* rightName;
    const char* rightDefaultRule;
    const char* rightDescriptionKey;
    const void* userData;
} GWDCommandSpec;

/* A command's procedure: fills the response; its status goes under
   kGWDResponseErrorKey unless the procedure put one there itself. A
   procedure that returns descriptors lists them under kGWDDescriptorsKey;
   the helper sends and then closes them. */
typedef int32_t (*GWDCommandProc)(GWDAuthorizationRef authorization, const void* userData, plist_t request,
                                  plist_t response, GWDLogClientRef logClient, GWDLogMessageRef logMessage);

/* What GWDDiagnoseFailure finds. */
enum {
    kGWDDiagnosisUnknown = 0,
    kGWDDiagnosisServiceDisabled = 1,
    kGWDDiagnosisPartlyInstalled = 2,
    kGWDDiagnosisNotInstalled = 3,
};

/*
 * The one setting that moves the system's root paths (the helper directory,
 * the unit directory and "/dev/") below another folder, for tests: the
 * environment variable WIRELOOM_SYSTEM_ROOT. Unset or empty means "/". The
 * socket path is not moved.
 */
#define kGWDSystemRootVariable "WIRELOOM_SYSTEM_ROOT"
#define kGWDHelperToolDirectory "/usr/local/libexec/privileged-helpers"
#define kGWDUnitDirectory "/etc/systemd/system"
/* Writes the system root followed by the formatted path into buffer; false
   when it does not fit. */
int GWDSystemPath(char* buffer, size_t size, const char* format, ...) __attribute__((format(printf, 3, 4)));

/* The client's request: on success (0) *response is a new dictionary the
   caller frees; on failure it stays NULL. */
int32_t GWDExecuteRequestInHelperTool(GWDAuthorizationRef authorization, const GWDCommandSpec commands[],
                                      const char* bundleID, plist_t request, plist_t* response,
                                      const GWDAuthorizationEnvironment* environment);

int32_t GWDGetErrorFromResponse(plist_t response);

int GWDDiagnoseFailure(GWDAuthorizationRef authorization, const char* bundleID);

void GWDSetDefaultRules(GWDAuthorizationRef authorization, const GWDCommandSpec commands[], const char* bundleID,
                        const char* descriptionStringTableName);

/* The helper's whole main program: serves connections on the socket the
   service manager hands over until it has been idle for two minutes. */
int GWDHelperToolMain(const GWDCommandSpec commands[], const GWDCommandProc commandProcs[]);
/* Called by a command procedure: the helper quits once the current response
   has been sent. */
void GWDHelperToolRequestShutdown(void);

void GWDCloseDescriptorArray(plist_t descriptorArray);

int GWDOSStatusToErrno(int32_t status);
int32_t GWDErrnoToOSStatus(int errnum);

#ifdef __cplusplus
}
#endif

#endif
