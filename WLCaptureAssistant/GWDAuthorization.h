#ifndef GWD_AUTHORIZATION_H
#define GWD_AUTHORIZATION_H
/*
 * The authorization references that the request protocol carries: a client
 * creates an empty one, asks for named rights before sending a request, and
 * sends its 32-byte external form; the helper rebuilds a reference from that
 * form and binds it to the connecting peer, whose rights it then checks.
 *
 * Named rights are polkit actions, checked with pkcheck (found on PATH) for a
 * process: the caller itself on the client, the peer in the helper.
 */

#include <stddef.h>
#include <stdint.h>
#include <sys/types.h>

#ifdef __cplusplus
extern "C" {
#endif

typedef struct GWDAuthorization* GWDAuthorizationRef;

enum {
    kGWDAuthorizationSuccess = 0,
    kGWDAuthorizationInvalidRef = -60002,
    kGWDAuthorizationInvalidPointer = -60004,
    kGWDAuthorizationDenied = -60005,
    kGWDAuthorizationCanceled = -60006,
    kGWDAuthorizationInteractionNotAllowed = -60007,
    kGWDAuthorizationInternal = -60008,
    kGWDAuthorizationInternalizeNotAllowed = -60010,
    kGWDAuthorizationInvalidFlags = -60011,
};

/* Flags for GWDAuthorizationCopyRights and GWDAuthorizationFree. */
enum {
    kGWDAuthorizationFlagDefaults = 0,
    kGWDAuthorizationFlagInteractionAllowed = 1u << 0,
    kGWDAuthorizationFlagExtendRights = 1u << 1,
    kGWDAuthorizationFlagPreAuthorize = 1u << 2,
    kGWDAuthorizationFlagDestroyRights = 1u << 3,
};

/* Details shown to the user with the authorization dialog (pkcheck --detail). */
typedef struct {
    const char* name;
    const char* value;
} GWDAuthorizationItem;

typedef struct {
    size_t count;
    const GWDAuthorizationItem* items;
} GWDAuthorizationEnvironment;

#define kGWDAuthorizationExternalFormLength 32

typedef struct {
    char bytes[kGWDAuthorizationExternalFormLength];
} GWDAuthorizationExternalForm;

/* An empty reference for the calling process. */
int32_t GWDAuthorizationCreate(GWDAuthorizationRef* authorization);

/*
 * Asks for one named right. With kGWDAuthorizationFlagExtendRights the user
 * may be asked (when interaction is allowed); with only
 * kGWDAuthorizationFlagPreAuthorize a right the user could obtain by
 * authenticating counts as granted, so nobody is asked twice for one action.
 */
int32_t GWDAuthorizationCopyRights(GWDAuthorizationRef authorization, const char* rightName,
                                   const GWDAuthorizationEnvironment* environment, uint32_t flags);

int32_t GWDAuthorizationMakeExternalForm(GWDAuthorizationRef authorization, GWDAuthorizationExternalForm* form);
/* Refuses a form that no reference of this module made. */
int32_t GWDAuthorizationCreateFromExternalForm(const GWDAuthorizationExternalForm* form,
                                               GWDAuthorizationRef* authorization);

/* Makes a rebuilt reference stand for the process at the other end of a
   connection: rights are then checked for that process. */
void GWDAuthorizationSetSubject(GWDAuthorizationRef authorization, pid_t pid, uid_t uid, gid_t gid);
/* The process a reference stands for; false for a null reference. */
int GWDAuthorizationGetSubject(GWDAuthorizationRef authorization, pid_t* pid, uid_t* uid, gid_t* gid);

int32_t GWDAuthorizationFree(GWDAuthorizationRef authorization, uint32_t flags);

/* Whether the right database knows the right: 0, or kGWDAuthorizationDenied
   when it does not (pkaction --action-id). */
int32_t GWDAuthorizationRightGet(const char* rightName);

#ifdef __cplusplus
}
#endif

#endif
