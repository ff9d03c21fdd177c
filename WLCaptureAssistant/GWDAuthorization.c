#include "GWDAuthorization.h"
#include "GatewardenInternal.h"

#include <errno.h>
#include <fcntl.h>
#include <spawn.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/random.h>
#include <sys/wait.h>
#include <unistd.h>

extern char** environ;

/* The external form is a magic prefix and a random token. The token grants
   nothing by itself: the helper asks polkit again, about the peer the kernel
   names, so a forged form buys a client no right it does not have. */
static const char kExternalMagic[8] = {'G', 'W', 'D', 'A', 'U', 'T', 'H', '1'};
enum { kTokenLength = kGWDAuthorizationExternalFormLength - sizeof(kExternalMagic) };

struct GWDAuthorization {
    unsigned char token[kTokenLength];
    pid_t pid;
    uid_t uid;
    gid_t gid;
};

static const uint32_t kKnownFlags = kGWDAuthorizationFlagInteractionAllowed | kGWDAuthorizationFlagExtendRights |
                                    kGWDAuthorizationFlagPreAuthorize | kGWDAuthorizationFlagDestroyRights;

int32_t GWDAuthorizationCreate(GWDAuthorizationRef* authorization) {
    if (authorization == NULL) return kGWDAuthorizationInvalidPointer;
    struct GWDAuthorization* result = calloc(1, sizeof(*result));
    if (result == NULL) return kGWDAuthorizationInternal;
    if (getrandom(result->token, sizeof(result->token), 0) != (ssize_t)sizeof(result->token)) {
        free(result);
        return kGWDAuthorizationInternal;
    }
    result->pid = getpid();
    result->uid = geteuid();
    result->gid = getegid();
    *authorization = result;
    return kGWDAuthorizationSuccess;
}

int GWDRunTool(char* const argv[]) {
    posix_spawn_file_actions_t actions;
    if (posix_spawn_file_actions_init(&actions) != 0) return -1;
    posix_spawn_file_actions_addopen(&actions, STDIN_FILENO, "/dev/null", O_RDONLY, 0);
    posix_spawn_file_actions_addopen(&actions, STDOUT_FILENO, "/dev/null", O_WRONLY, 0);
    posix_spawn_file_actions_addopen(&actions, STDERR_FILENO, "/dev/null", O_WRONLY, 0);
    pid_t child;
    int err = posix_spawnp(&child, argv[0], &actions, NULL, argv, environ);
    posix_spawn_file_actions_destroy(&actions);
    if (err != 0) return -1;
    int status;
    while (waitpid(child, &status, 0) < 0) {
        if (errno != EINTR) return -1;
    }
    return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

int32_t GWDAuthorizationCopyRights(GWDAuthorizationRef authorization, const char* rightName,
                                   const GWDAuthorizationEnvironment* environment, uint32_t flags) {
    if (authorization == NULL) return kGWDAuthorizationInvalidRef;
    if (rightName == NULL) return kGWDAuthorizationInvalidPointer;
    if ((flags & ~kKnownFlags) != 0) return kGWDAuthorizationInvalidFlags;

    size_t details = environment != NULL ? environment->count : 0;
    char** argv = calloc(8 + 3 * details, sizeof(char*));
    if (argv == NULL) return kGWDAuthorizationInternal;
    char pid[24];
    snprintf(pid, sizeof(pid), "%ld", (long)authorization->pid);
    size_t argc = 0;
    argv[argc++] = "pkcheck";
    argv[argc++] = "--action-id";
    argv[argc++] = (char*)rightName;
    argv[argc++] = "--process";
    argv[argc++] = pid;
    int mayAsk = (flags & kGWDAuthorizationFlagInteractionAllowed) && (flags & kGWDAuthorizationFlagExtendRights);
    if (mayAsk) argv[argc++] = "--allow-user-interaction";
    for (size_t i = 0; i < details; i++) {
        argv[argc++] = "--detail";
        argv[argc++] = (char*)environment->items[i].name;
        argv[argc++] = (char*)environment->items[i].value;
    }
    argv[argc] = NULL;
    int status = GWDRunTool(argv);
    free(argv);

    switch (status) {
    case 0: return kGWDAuthorizationSuccess;
    case 1: return kGWDAuthorizationDenied;
    case 2:  // a challenge: the user could authenticate but was not asked
        if (!(flags & kGWDAuthorizationFlagExtendRights) && (flags & kGWDAuthorizationFlagPreAuthorize))
            return kGWDAuthorizationSuccess;
        return mayAsk ? kGWDAuthorizationDenied : kGWDAuthorizationInteractionNotAllowed;
    case 3: return kGWDAuthorizationCanceled;
    default: return kGWDAuthorizationInternal;
    }
}

int32_t GWDAuthorizationMakeExternalForm(GWDAuthorizationRef authorization, GWDAuthorizationExternalForm* form) {
    if (authorization == NULL) return kGWDAuthorizationInvalidRef;
    if (form == NULL) return kGWDAuthorizationInvalidPointer;
    memcpy(form->bytes, kExternalMagic, sizeof(kExternalMagic));
    memcpy(form->bytes + sizeof(kExternalMagic), authorization->token, sizeof(authorization->token));
    return kGWDAuthorizationSuccess;
}

int32_t GWDAuthorizationCreateFromExternalForm(const GWDAuthorizationExternalForm* form,
                                               GWDAuthorizationRef* authorization) {
    if (form == NULL || authorization == NULL) return kGWDAuthorizationInvalidPointer;
    if (memcmp(form->bytes, kExternalMagic, sizeof(kExternalMagic)) != 0) return kGWDAuthorizationInternalizeNotAllowed;
    struct GWDAuthorization* result = calloc(1, sizeof(*result));
    if (result == NULL) return kGWDAuthorizationInternal;
    memcpy(result->token, form->bytes + sizeof(kExternalMagic), sizeof(result->token));
    // Until the helper names the peer, the rebuilt reference stands for no one.
    result->pid = -1;
    result->uid = (uid_t)-1;
    result->gid = (gid_t)-1;
    *authorization = result;
    return kGWDAuthorizationSuccess;
}

void GWDAuthorizationSetSubject(GWDAuthorizationRef authorization, pid_t pid, uid_t uid, gid_t gid) {
    if (authorization == NULL) return;
    authorization->pid = pid;
    authorization->uid = uid;
    authorization->gid = gid;
}

int GWDAuthorizationGetSubject(GWDAuthorizationRef authorization, pid_t* pid, uid_t* uid, gid_t* gid) {
    if (authorization == NULL) return 0;
    if (pid) *pid = authorization->pid;
    if (uid) *uid = authorization->uid;
    if (gid) *gid = authorization->gid;
    return 1;
}

int32_t GWDAuthorizationFree(GWDAuthorizationRef authorization, uint32_t flags) {
    if (authorization == NULL) return kGWDAuthorizationInvalidRef;
    if ((flags & ~kKnownFlags) != 0) return kGWDAuthorizationInvalidFlags;
    // polkit keeps no grant on our behalf, so destroying rights is forgetting the token.
    explicit_bzero(authorization->token, sizeof(authorization->token));
    free(authorization);
    return kGWDAuthorizationSuccess;
}

int32_t GWDAuthorizationRightGet(const char* rightName) {
    if (rightName == NULL) return kGWDAuthorizationInvalidPointer;
    char* argv[] = {"pkaction", "--action-id", (char*)rightName, NULL};
    int status = GWDRunTool(argv);
    if (status < 0) return kGWDAuthorizationInternal;
    return status == 0 ? kGWDAuthorizationSuccess : kGWDAuthorizationDenied;
}
