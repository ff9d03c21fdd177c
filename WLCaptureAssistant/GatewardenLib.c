#include "GatewardenInternal.h"

#include <arpa/inet.h>
#include <errno.h>
#include <fcntl.h>
#include <signal.h>
#include <stdarg.h>
#include <stdbool.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/epoll.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <syslog.h>
#include <systemd/sd-daemon.h>
#include <unistd.h>

/* Broken invariants stop the process; the text says which. */
static void __attribute__((noreturn)) GWDAssertionFailed(const char* text, const char* file, int line) {
    fprintf(stderr, "%s (%s:%d)\n", text, file, line);
    syslog(LOG_CRIT, "%s (%s:%d)", text, file, line);
    abort();
}
#define GWD_ASSERT(condition, text) ((condition) ? (void)0 : GWDAssertionFailed((text), __FILE__, __LINE__))

/* ---- Paths ---------------------------------------------------------- */

int GWDSystemPath(char* buffer, size_t size, const char* format, ...) {
    const char* root = getenv(kGWDSystemRootVariable);
    if (root == NULL) root = "";
    size_t rootLength = strlen(root);
    while (rootLength > 0 && root[rootLength - 1] == '/') rootLength--;
    if (rootLength >= size) return 0;
    memcpy(buffer, root, rootLength);
    va_list args;
    va_start(args, format);
    int length = vsnprintf(buffer + rootLength, size - rootLength, format, args);
    va_end(args);
    return length >= 0 && (size_t)length < size - rootLength;
}

/* ---- Status translation --------------------------------------------- */

int32_t GWDErrnoToOSStatus(int errnum) {
    if (errnum >= 1 && errnum <= 106) return kGWDErrnoStatusBase + errnum;
    return errnum;
}

int GWDOSStatusToErrno(int32_t status) {
    switch (status) {
    case 0: return 0;
    case kGWDStatusOutOfMemory: return ENOMEM;
    // The socket-layer statuses whose errno values do not follow the
    // arithmetic below.
    case -3278: return 91;
    case -3277: return 3;
    case -3276: return 36;
    case -3275: return 96;
    case -3274: return 99;
    case -3273: return 89;
    case -3272: return 94;
    case -3271: return 98;
    case -3270: return 101;
    case -3269: return 100;
    case -3244: return 45;
    case -3234: return 11;
    case -3210: return 35;
    case -3202: return 3;
    default: break;
    }
    if (status >= -3278 && status <= -3200) return -3199 - status;
    if (status >= kGWDErrnoStatusBase && status <= kGWDErrnoStatusBase + 106) return status - kGWDErrnoStatusBase;
    return status;
}

int32_t NormaliseOSStatusErrorCode(int32_t status) {
    // 100089 is the protocol's own "cancelled" status, whatever errno
    // number ECANCELED has here.
    if (status == kGWDAuthorizationCanceled || status == kGWDErrnoStatusBase + 89) return kGWDStatusUserCanceled;
    return status;
}

int32_t GWDGetErrorFromResponse(plist_t response) {
    GWD_ASSERT(response != NULL, "GWDGetErrorFromResponse needs a response");
    plist_t value = plist_dict_get_item(response, kGWDResponseErrorKey);
    if (value == NULL || plist_get_node_type(value) != PLIST_UINT) return kGWDStatusUnexpected;
    uint64_t raw = 0;
    plist_get_uint_val(value, &raw);
    // libplist keeps every integer as 64 bits; a status is a signed 32-bit one.
    int64_t status = (int64_t)raw;
    if (status < INT32_MIN || status > INT32_MAX) return kGWDStatusUnexpected;
    return NormaliseOSStatusErrorCode((int32_t)status);
}

/* ---- Raw bytes ------------------------------------------------------ */

int GWDRead(int fd, void* buffer, size_t size) {
    GWD_ASSERT(fd >= 0, "GWDRead needs a descriptor");
    GWD_ASSERT(size <= kGWDMaxNumberOfKBytes, "GWDRead size over kGWDMaxNumberOfKBytes");
    char* cursor = buffer;
    while (size > 0) {
        ssize_t count = read(fd, cursor, size);
        if (count < 0) {
            if (errno == EINTR) continue;
            return errno;
        }
        if (count == 0) return EPIPE;
        cursor += count;
        size -= (size_t)count;
    }
    return 0;
}

static bool SIGPIPEIsIgnored(void) {
    struct sigaction action;
    return sigaction(SIGPIPE, NULL, &action) == 0 && action.sa_handler == SIG_IGN;
}

int GWDWrite(int fd, const void* buffer, size_t size) {
    GWD_ASSERT(fd >= 0, "GWDWrite needs a descriptor");
    GWD_ASSERT(size <= kGWDMaxNumberOfKBytes, "GWDWrite size over kGWDMaxNumberOfKBytes");
    struct stat info;
    if (fstat(fd, &info) < 0) return errno;
    // Linux has no per-socket no-SIGPIPE option; MSG_NOSIGNAL on every send
    // does the same for sockets, and a pipe needs SIGPIPE ignored.
    bool isSocket = S_ISSOCK(info.st_mode);
    if (S_ISFIFO(info.st_mode)) GWD_ASSERT(SIGPIPEIsIgnored(), "GWDWrite to a pipe needs SIGPIPE ignored");
    const char* cursor = buffer;
    while (size > 0) {
        ssize_t count = isSocket ? send(fd, cursor, size, MSG_NOSIGNAL) : write(fd, cursor, size);
        if (count < 0) {
            if (errno == EINTR) continue;
            return errno;
        }
        cursor += count;
        size -= (size_t)count;
    }
    return 0;
}

/* ---- Dictionaries --------------------------------------------------- */

int GWDIsBinaryPropertyListData(const void* bytes, size_t length) {
    size_t watermarkLength = sizeof(kGWDBinaryPlistWatermark) - 1;
    return length >= watermarkLength && memcmp(bytes, kGWDBinaryPlistWatermark, watermarkLength) == 0;
}

static bool HasPrefix(const char* cursor, const char* end, const char* prefix) {
    size_t length = strlen(prefix);
    return (size_t)(end - cursor) >= length && memcmp(cursor, prefix, length) == 0;
}

/* Counts container tags without parsing. Anything that merely looks like a
   tag (inside a comment, say) counts too, which only errs towards refusing. */
static bool NestsTooDeeply(const char* body, size_t length) {
    const char* end = body + length;
    int depth = 0;
    for (const char* cursor = memchr(body, '<', length); cursor != NULL;
         cursor = memchr(cursor, '<', (size_t)(end - cursor))) {
        cursor++;
        if (HasPrefix(cursor, end, "/dict") || HasPrefix(cursor, end, "/array")) {
            if (depth > 0) depth--;
        } else if (HasPrefix(cursor, end, "dict") || HasPrefix(cursor, end, "array")) {
            const char* close = memchr(cursor, '>', (size_t)(end - cursor));
            if (close == NULL) break;
            if (close[-1] != '/' && ++depth > kGWDMaxNestingDepth) return true;
            cursor = close;
        }
    }
    return false;
}

int GWDReadDictionary(int fd, plist_t* dictionary) {
    GWD_ASSERT(dictionary != NULL && *dictionary == NULL, "GWDReadDictionary needs an empty result");
    uint32_t wireLength;
    int err = GWDRead(fd, &wireLength, sizeof(wireLength));
    if (err != 0) return err;
    uint32_t length = ntohl(wireLength);
    if (length == 0 || length > kGWDMaxNumberOfKBytes) return EINVAL;

    // One byte more keeps the body a C string for the parser.
    char* body = malloc((size_t)length + 1);
    if (body == NULL) return ENOMEM;
    err = GWDRead(fd, body, length);
    body[length] = '\0';
    // Only the XML parser ever sees bytes from a client.
    if (err == 0 && (GWDIsBinaryPropertyListData(body, length) || NestsTooDeeply(body, length))) err = EINVAL;
    plist_t result = NULL;
    if (err == 0) {
        plist_from_xml(body, length, &result);
        if (result == NULL) err = EINVAL;
    }
    free(body);
    if (err == 0 && plist_get_node_type(result) != PLIST_DICT) err = EINVAL;
    if (err != 0) {
        if (result != NULL) plist_free(result);
        return err;
    }
    *dictionary = result;
    return 0;
}

int GWDWriteDictionary(int fd, plist_t dictionary) {
    GWD_ASSERT(dictionary != NULL, "GWDWriteDictionary needs a dictionary");
    char* body = NULL;
    uint32_t length = 0;
    plist_to_xml(dictionary, &body, &length);
    if (body == NULL) return EINVAL;
    int err = length > kGWDMaxNumberOfKBytes ? EINVAL : 0;
    if (err == 0) {
        uint32_t wireLength = htonl(length);
        err = GWDWrite(fd, &wireLength, sizeof(wireLength));
    }
    if (err == 0) err = GWDWrite(fd, body, length);
    plist_to_xml_free(body);
    return err;
}

/* ---- Descriptors ---------------------------------------------------- */

/* The platform's control length for one descriptor. */
#define kDescriptorControlLength CMSG_LEN(sizeof(int))

typedef union {
    struct cmsghdr header;
    char bytes[CMSG_SPACE(sizeof(int))];
} DescriptorControl;

int GWDWriteDescriptor(int fd, int descriptor) {
    GWD_ASSERT(descriptor >= 0, "GWDWriteDescriptor needs a non-negative descriptor");
    DescriptorControl control;
    memset(&control, 0, sizeof(control));
    char data = 'D';
    struct iovec iov = {.iov_base = &data, .iov_len = 1};
    struct msghdr message = {
        .msg_iov = &iov, .msg_iovlen = 1, .msg_control = control.bytes, .msg_controllen = sizeof(control.bytes)};
    struct cmsghdr* header = CMSG_FIRSTHDR(&message);
    header->cmsg_len = kDescriptorControlLength;
    header->cmsg_level = SOL_SOCKET;
    header->cmsg_type = SCM_RIGHTS;
    memcpy(CMSG_DATA(header), &descriptor, sizeof(descriptor));
    ssize_t sent;
    do {
        sent = sendmsg(fd, &message, MSG_NOSIGNAL);
    } while (sent < 0 && errno == EINTR);
    if (sent < 0) return errno;
    char answer;
    int err = GWDRead(fd, &answer, 1);
    if (err == 0 && answer != 'A') err = EINVAL;
    return err;
}

/* Closes every descriptor the kernel placed in a received message, whatever
   else was wrong with it. */
static void CloseReceivedDescriptors(struct msghdr* message) {
    for (struct cmsghdr* header = CMSG_FIRSTHDR(message); header != NULL; header = CMSG_NXTHDR(message, header)) {
        if (header->cmsg_level != SOL_SOCKET || header->cmsg_type != SCM_RIGHTS) continue;
        if (header->cmsg_len < CMSG_LEN(0)) continue;
        size_t count = (header->cmsg_len - CMSG_LEN(0)) / sizeof(int);
        const char* data = (const char*)CMSG_DATA(header);
        const char* limit = (const char*)message->msg_control + message->msg_controllen;
        for (size_t i = 0; i < count && data + (i + 1) * sizeof(int) <= limit; i++) {
            int descriptor;
            memcpy(&descriptor, data + i * sizeof(int), sizeof(descriptor));
            if (descriptor >= 0) close(descriptor);
        }
    }
}

int GWDReadDescriptor(int fd, int* descriptor) {
    GWD_ASSERT(descriptor != NULL, "GWDReadDescriptor needs a result");
    DescriptorControl control;
    memset(&control, 0, sizeof(control));
    char data = 0;
    struct iovec iov = {.iov_base = &data, .iov_len = 1};
    struct msghdr message = {
        .msg_iov = &iov, .msg_iovlen = 1, .msg_control = control.bytes, .msg_controllen = sizeof(control.bytes)};
    ssize_t received;
    do {
        received = recvmsg(fd, &message, MSG_CMSG_CLOEXEC);
    } while (received < 0 && errno == EINTR);
    if (received < 0) return errno;
    if (received == 0) return EPIPE;

    struct cmsghdr* header = CMSG_FIRSTHDR(&message);
    int result = -1;
    if (header != NULL && header->cmsg_len == kDescriptorControlLength)
        memcpy(&result, CMSG_DATA(header), sizeof(result));
    // Linux reports the MSG_CMSG_CLOEXEC asked for among the flags.
    bool valid = data == 'D' && (message.msg_flags & ~MSG_CMSG_CLOEXEC) == 0 && header != NULL &&
                 header->cmsg_len == kDescriptorControlLength && header->cmsg_level == SOL_SOCKET &&
                 header->cmsg_type == SCM_RIGHTS && result >= 0;
    if (!valid) {
        CloseReceivedDescriptors(&message);
        return EINVAL;
    }
    char answer = 'A';
    int err = GWDWrite(fd, &answer, 1);
    if (err != 0) {
        close(result);
        return err;
    }
    *descriptor = result;
    return 0;
}

/* Whether value is an array of non-negative integers, each below 2^31. */
static bool IsDescriptorArray(plist_t value) {
    if (plist_get_node_type(value) != PLIST_ARRAY) return false;
    uint32_t count = plist_array_get_size(value);
    for (uint32_t i = 0; i < count; i++) {
        plist_t item = plist_array_get_item(value, i);
        if (plist_get_node_type(item) != PLIST_UINT) return false;
        uint64_t number = 0;
        plist_get_uint_val(item, &number);
        if (number > INT32_MAX) return false;
    }
    return true;
}

static int DescriptorAt(plist_t array, uint32_t index) {
    uint64_t number = 0;
    plist_get_uint_val(plist_array_get_item(array, index), &number);
    return (int)number;
}

void GWDCloseDescriptorArray(plist_t descriptorArray) {
    if (descriptorArray == NULL) return;
    GWD_ASSERT(IsDescriptorArray(descriptorArray), "GWDCloseDescriptorArray needs non-negative descriptors");
    uint32_t count = plist_array_get_size(descriptorArray);
    for (uint32_t i = 0; i < count; i++) close(DescriptorAt(descriptorArray, i));
}

int GWDWriteDictionaryAndDescriptors(int fd, plist_t dictionary) {
    plist_t descriptors = plist_dict_get_item(dictionary, kGWDDescriptorsKey);
    if (descriptors != NULL && !IsDescriptorArray(descriptors)) return EINVAL;
    int err = GWDWriteDictionary(fd, dictionary);
    uint32_t count = descriptors != NULL ? plist_array_get_size(descriptors) : 0;
    for (uint32_t i = 0; err == 0 && i < count; i++) err = GWDWriteDescriptor(fd, DescriptorAt(descriptors, i));
    return err;
}

int GWDReadDictioanaryTranslatingDescriptors(int fd, plist_t* dictionary) {
    plist_t response = NULL;
    int err = GWDReadDictionary(fd, &response);
    if (err != 0) return err;
    plist_t remote = plist_dict_get_item(response, kGWDDescriptorsKey);
    if (remote == NULL) {
        *dictionary = response;
        return 0;
    }
    plist_t local = plist_new_array();
    if (!IsDescriptorArray(remote)) err = EINVAL;
    uint32_t count = err == 0 ? plist_array_get_size(remote) : 0;
    for (uint32_t i = 0; err == 0 && i < count; i++) {
        int descriptor = -1;
        err = GWDReadDescriptor(fd, &descriptor);
        if (err == 0) plist_array_append_item(local, plist_new_uint((uint64_t)descriptor));
    }
    if (err != 0) {
        GWDCloseDescriptorArray(local);
        plist_free(local);
        plist_free(response);
        return err;
    }
    plist_dict_set_item(response, kGWDDescriptorsKey, local);
    *dictionary = response;
    return 0;
}

/* ---- Commands ------------------------------------------------------- */

/* The length of a string in UTF-16 units, or -1 if it is not UTF-8. */
static long UTF16Length(const unsigned char* text, size_t length) {
    long units = 0;
    for (size_t i = 0; i < length;) {
        unsigned char lead = text[i];
        size_t extra = lead < 0x80             ? 0
                       : (lead & 0xE0) == 0xC0 ? 1
                       : (lead & 0xF0) == 0xE0 ? 2
                       : (lead & 0xF8) == 0xF0 ? 3
                                               : 4;
        if (extra == 4) return -1;
        // The lead's marker bits above the mask are zero in every valid form.
        uint32_t codePoint = lead & (0x7Fu >> extra);
        if (length - i <= extra) return -1;
        for (size_t k = 1; k <= extra; k++) {
            if ((text[i + k] & 0xC0) != 0x80) return -1;
            codePoint = (codePoint << 6) | (text[i + k] & 0x3Fu);
        }
        static const uint32_t kSmallest[] = {0, 0x80, 0x800, 0x10000};
        if (codePoint < kSmallest[extra] || codePoint > 0x10FFFF || (codePoint >= 0xD800 && codePoint <= 0xDFFF))
            return -1;
        units += codePoint >= 0x10000 ? 2 : 1;
        i += extra + 1;
    }
    return units;
}

int32_t FindCommand(plist_t request, const GWDCommandSpec commands[], size_t* commandIndex) {
    GWD_ASSERT(request != NULL && commands != NULL && commandIndex != NULL, "FindCommand needs its arguments");
    plist_t value = plist_dict_get_item(request, kGWDCommandKey);
    if (value == NULL || plist_get_node_type(value) != PLIST_STRING) return kGWDStatusParameterError;
    uint64_t length = 0;
    const char* name = plist_get_string_ptr(value, &length);
    if (name == NULL) return kGWDStatusUnexpected;
    long characters = UTF16Length((const unsigned char*)name, (size_t)length);
    if (characters < 0) return kGWDStatusUnexpected;
    if (characters > 1024) return kGWDStatusParameterError;
    for (size_t index = 0; commands[index].commandName != NULL; index++) {
        if (strlen(commands[index].commandName) == length && memcmp(commands[index].commandName, name, length) == 0) {
            *commandIndex = index;
            return 0;
        }
    }
    return GWDErrnoToOSStatus(ENOENT);
}

static size_t CommandCount(const GWDCommandSpec commands[]) {
    size_t count = 0;
    while (commands[count].commandName != NULL) count++;
    return count;
}

static size_t ProcCount(const GWDCommandProc procs[]) {
    size_t count = 0;
    while (procs[count] != NULL) count++;
    return count;
}

static void AssertCommandTable(const GWDCommandSpec commands[]) {
    GWD_ASSERT(commands != NULL, "Command table is NULL");
    GWD_ASSERT(commands[0].commandName != NULL, "Command table is empty");
    for (size_t i = 0; commands[i].commandName != NULL; i++) {
        GWD_ASSERT((commands[i].rightName == NULL) == (commands[i].rightDefaultRule == NULL),
                   "A command has a right rule exactly when it names a right");
        GWD_ASSERT(commands[i].rightName != NULL || commands[i].rightDescriptionKey == NULL,
                   "A command without a right has no right description");
    }
}

/* ---- The client ----------------------------------------------------- */

static int32_t SocketPathForBundleID(const char* bundleID, struct sockaddr_un* address, socklen_t* addressLength) {
    // Identifiers longer than the platform's path limit cannot name a file.
    if (strlen(bundleID) + 1 > 1024) return kGWDStatusUnexpected;
    char path[1100];
    int length = snprintf(path, sizeof(path), kGWDSocketPathFormat, bundleID);
    if (length < 0 || length >= kGWDSocketPathLimit) return kGWDStatusParameterError;
    memset(address, 0, sizeof(*address));
    address->sun_family = AF_UNIX;
    memcpy(address->sun_path, path, (size_t)length + 1);
    *addressLength = (socklen_t)(offsetof(struct sockaddr_un, sun_path) + (size_t)length);
    return 0;
}

int32_t GWDExecuteRequestInHelperTool(GWDAuthorizationRef authorization, const GWDCommandSpec commands[],
                                      const char* bundleID, plist_t request, plist_t* response,
                                      const GWDAuthorizationEnvironment* environment) {
    AssertCommandTable(commands);
    GWD_ASSERT(bundleID != NULL, "GWDExecuteRequestInHelperTool needs a bundle identifier");
    GWD_ASSERT(request != NULL && plist_get_node_type(request) == PLIST_DICT, "The request must be a dictionary");
    GWD_ASSERT(response != NULL && *response == NULL, "GWDExecuteRequestInHelperTool needs an empty response");
    plist_t command = plist_dict_get_item(request, kGWDCommandKey);
    GWD_ASSERT(command != NULL && plist_get_node_type(command) == PLIST_STRING,
               "The request must hold kGWDCommandKey with a string");

    size_t index = 0;
    int32_t status = FindCommand(request, commands, &index);
    if (status == 0 && commands[index].rightName != NULL) {
        status = GWDAuthorizationCopyRights(authorization, commands[index].rightName, environment,
                                            kGWDAuthorizationFlagInteractionAllowed |
                                                kGWDAuthorizationFlagExtendRights | kGWDAuthorizationFlagPreAuthorize);
    }

    int fd = -1;
    if (status == 0) {
        fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
        if (fd < 0) status = GWDErrnoToOSStatus(errno);
    }
    struct sockaddr_un address;
    socklen_t addressLength = 0;
    if (status == 0) status = SocketPathForBundleID(bundleID, &address, &addressLength);
    if (status == 0 && connect(fd, (const struct sockaddr*)&address, addressLength) < 0)
        status = GWDErrnoToOSStatus(errno);

    GWDAuthorizationExternalForm form;
    if (status == 0) status = GWDAuthorizationMakeExternalForm(authorization, &form);
    if (status == 0) status = GWDErrnoToOSStatus(GWDWrite(fd, form.bytes, sizeof(form.bytes)));
    if (status == 0) status = GWDErrnoToOSStatus(GWDWriteDictionary(fd, request));
    if (status == 0) status = GWDErrnoToOSStatus(GWDReadDictioanaryTranslatingDescriptors(fd, response));

    if (fd >= 0) close(fd);
    status = NormaliseOSStatusErrorCode(status);
    GWD_ASSERT((status == 0) == (*response != NULL), "A response exists exactly when the request succeeded");
    return status;
}

int GWDDiagnoseFailure(GWDAuthorizationRef authorization, const char* bundleID) {
    (void)authorization;
    GWD_ASSERT(bundleID != NULL, "GWDDiagnoseFailure needs a bundle identifier");
    char paths[3][1100];
    if (strlen(bundleID) + 1 > 1024 ||
        !GWDSystemPath(paths[0], sizeof(paths[0]), kGWDHelperToolDirectory "/%s", bundleID) ||
        !GWDSystemPath(paths[1], sizeof(paths[1]), kGWDUnitDirectory "/%s.socket", bundleID) ||
        !GWDSystemPath(paths[2], sizeof(paths[2]), kGWDUnitDirectory "/%s.service", bundleID))
        return kGWDDiagnosisUnknown;
    // The daemon's description is two units here; a helper with only some of
    // its three files is as broken as one with the tool alone.
    int present = 0;
    for (int i = 0; i < 3; i++) present += access(paths[i], F_OK) == 0;
    if (present == 0) return kGWDDiagnosisNotInstalled;
    if (present < 3) return kGWDDiagnosisPartlyInstalled;

    struct sockaddr_un address;
    socklen_t addressLength;
    if (SocketPathForBundleID(bundleID, &address, &addressLength) != 0) return kGWDDiagnosisUnknown;
    int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (fd < 0) return kGWDDiagnosisUnknown;
    int result = kGWDDiagnosisUnknown;
    if (connect(fd, (const struct sockaddr*)&address, addressLength) < 0 && errno == ECONNREFUSED)
        result = kGWDDiagnosisServiceDisabled;
    close(fd);
    return result;
}

void GWDSetDefaultRules(GWDAuthorizationRef authorization, const GWDCommandSpec commands[], const char* bundleID,
                        const char* descriptionStringTableName) {
    (void)authorization;
    (void)descriptionStringTableName;
    AssertCommandTable(commands);
    GWD_ASSERT(bundleID != NULL && bundleID[0] != '\0', "The bundle identifier must name a loaded bundle");
    for (size_t i = 0; commands[i].commandName != NULL; i++) {
        if (commands[i].rightName == NULL) continue;
        if (GWDAuthorizationRightGet(commands[i].rightName) != kGWDAuthorizationDenied) continue;
        // polkit learns its actions from policy files that packages install,
        // not at run time: the rule and description are built and let go,
        // and the right stays unregistered.
        char* rule = strdup(commands[i].rightDefaultRule);
        char* description = commands[i].rightDescriptionKey ? strdup(commands[i].rightDescriptionKey) : NULL;
        free(rule);
        free(description);
    }
}

/* ---- The helper ----------------------------------------------------- */

struct GWDLogClient {
    int facility;
};

struct GWDLogMessage {
    char peer[96];
};

void GWDLog(GWDLogClientRef client, GWDLogMessageRef message, int level, const char* format, ...) {
    (void)client;
    char text[2048];
    va_list args;
    va_start(args, format);
    vsnprintf(text, sizeof(text), format, args);
    va_end(args);
    if (message != NULL && message->peer[0] != '\0')
        syslog(level, "%s (%s)", text, message->peer);
    else
        syslog(level, "%s", text);
}

static volatile sig_atomic_t gShutdownRequested = 0;

void GWDHelperToolRequestShutdown(void) { gShutdownRequested = 1; }

/* The failure that ends the helper, kept to be logged once on the way out. */
static void SetFailure(char* failure, size_t size, const char* text, int err) {
    snprintf(failure, size, "%s: %s", text, strerror(err));
}

static void SetFailureText(char* failure, size_t size, const char* text) { snprintf(failure, size, "%s", text); }

int HandleConnection(int fd, const GWDCommandSpec commands[], const GWDCommandProc commandProcs[]) {
    GWDAuthorizationExternalForm form;
    GWDAuthorizationRef authorization = NULL;
    plist_t request = NULL;
    plist_t response = NULL;
    struct GWDLogClient logClient = {LOG_DAEMON};
    struct GWDLogMessage logMessage = {""};

    int err = GWDRead(fd, form.bytes, sizeof(form.bytes));
    if (err == 0 && GWDAuthorizationCreateFromExternalForm(&form, &authorization) != 0) err = EINVAL;
    if (err == 0) {
        struct ucred peer;
        socklen_t peerLength = sizeof(peer);
        if (getsockopt(fd, SOL_SOCKET, SO_PEERCRED, &peer, &peerLength) < 0) {
            err = errno;
        } else {
            GWDAuthorizationSetSubject(authorization, peer.pid, peer.uid, peer.gid);
            snprintf(logMessage.peer, sizeof(logMessage.peer), "pid %ld, uid %ld, gid %ld", (long)peer.pid,
                     (long)peer.uid, (long)peer.gid);
            syslog(LOG_INFO, "Request from %s", logMessage.peer);
        }
    }
    if (err == 0) err = GWDReadDictionary(fd, &request);
    if (err == 0) {
        response = plist_new_dict();
        if (response == NULL) err = ENOMEM;
    }
    if (err == 0) {
        size_t index = 0;
        int32_t status = FindCommand(request, commands, &index);
        if (status == 0 && commands[index].rightName != NULL) {
            status =
                GWDAuthorizationCopyRights(authorization, commands[index].rightName, NULL,
                                           kGWDAuthorizationFlagInteractionAllowed | kGWDAuthorizationFlagExtendRights);
        }
        if (status == 0) {
            status = commandProcs[index](authorization, commands[index].userData, request, response, &logClient,
                                         &logMessage);
            if (status == 0)
                syslog(LOG_DEBUG, "Command callback succeeded");
            else
                syslog(LOG_DEBUG, "Command callback failed: %ld", (long)status);
        }
        if (plist_dict_get_item(response, kGWDResponseErrorKey) == NULL)
            plist_dict_set_item(response, kGWDResponseErrorKey, plist_new_uint((uint64_t)(int64_t)status));
        err = GWDWriteDictionaryAndDescriptors(fd, response);
    }

    if (response != NULL) {
        plist_t descriptors = plist_dict_get_item(response, kGWDDescriptorsKey);
        if (descriptors != NULL && IsDescriptorArray(descriptors)) GWDCloseDescriptorArray(descriptors);
        plist_free(response);
    }
    if (request != NULL) plist_free(request);
    if (authorization != NULL) GWDAuthorizationFree(authorization, kGWDAuthorizationFlagDestroyRights);
    return err;
}

static void WaitForDebugger(void) {
    const char* value = getenv("GWDWaitForDebugger");
    if (value != NULL && strtol(value, NULL, 0) != 0) {
        syslog(LOG_DEBUG, "Waiting for debugger");
        pause();
    }
}

static unsigned WatchdogSeconds(void) {
    // Tests shorten the watchdog; nothing else should need to.
    const char* value = getenv("GWDWatchdogSeconds");
    long seconds = value != NULL ? strtol(value, NULL, 10) : 0;
    return seconds > 0 && seconds < 3600 ? (unsigned)seconds : 65;
}

/* A request that takes longer than this is stuck or hostile: SIGALRM's
   default action ends the helper, and the service manager starts a fresh one
   on the next connection. */
static void EnableWatchdog(void) { alarm(WatchdogSeconds()); }
static void DisableWatchdog(void) { alarm(0); }

static int SetNonBlocking(int fd, bool nonBlocking) {
    int flags = fcntl(fd, F_GETFL);
    if (flags < 0) return errno;
    int wanted = nonBlocking ? (flags | O_NONBLOCK) : (flags & ~O_NONBLOCK);
    if (wanted != flags && fcntl(fd, F_SETFL, wanted) < 0) return errno;
    return 0;
}

/*
 * The service manager's hand-over, seen as a dictionary: "Sockets" maps each
 * descriptor name (FileDescriptorName= in the socket unit) to the array of
 * descriptors passed under it. The helper listens on the first "MasterSocket".
 */
static bool CheckInWithServiceManager(int* listenFd, char* failure, size_t size) {
    char** names = NULL;
    int count = sd_listen_fds_with_names(1, &names);
    if (count < 0) {
        SetFailure(failure, size, "Error checking in", -count);
        return false;
    }
    if (count == 0) {
        // Not started by the service manager, or started without a socket.
        SetFailure(failure, size, "Checkin failed", ESRCH);
        return false;
    }
    plist_t checkin = plist_new_dict();
    plist_t sockets = plist_new_dict();
    bool built = checkin != NULL && sockets != NULL;
    for (int i = 0; built && i < count; i++) {
        const char* name = names != NULL && names[i] != NULL ? names[i] : "unknown";
        plist_t group = plist_dict_get_item(sockets, name);
        if (group == NULL) {
            group = plist_new_array();
            if (group != NULL) plist_dict_set_item(sockets, name, group);
        }
        if (group == NULL)
            built = false;
        else
            plist_array_append_item(group, plist_new_uint((uint64_t)(SD_LISTEN_FDS_START + i)));
    }
    if (names != NULL) {
        for (int i = 0; i < count; i++) free(names[i]);
        free(names);
    }
    if (!built) {
        if (sockets != NULL) plist_free(sockets);
        if (checkin != NULL) plist_free(checkin);
        SetFailure(failure, size, "Could not create checkin request", ENOMEM);
        return false;
    }
    plist_dict_set_item(checkin, "Sockets", sockets);

    bool ok = false;
    plist_t dictionary = plist_dict_get_item(checkin, "Sockets");
    if (dictionary == NULL) {
        SetFailure(failure, size, "Could not get socket dictionary from checkin response", ENOENT);
    } else if (plist_get_node_type(dictionary) != PLIST_DICT) {
        SetFailureText(failure, size, "Could not get socket dictionary from checkin response: Type mismatch");
    } else {
        if (plist_dict_get_size(dictionary) > 1) syslog(LOG_WARNING, "Some sockets in dictionary will be ignored");
        plist_t array = plist_dict_get_item(dictionary, "MasterSocket");
        if (array == NULL) {
            SetFailure(failure, size, "Could not get file descriptor array", ENOENT);
        } else if (plist_get_node_type(array) != PLIST_ARRAY) {
            SetFailureText(failure, size, "Could not get file descriptor array: Type mismatch");
        } else {
            if (plist_array_get_size(array) > 1) syslog(LOG_WARNING, "Some sockets in array will be ignored");
            plist_t entry = plist_array_get_item(array, 0);
            if (entry == NULL) {
                SetFailure(failure, size, "Could not get file descriptor array entry", ENOENT);
            } else if (plist_get_node_type(entry) != PLIST_UINT) {
                SetFailureText(failure, size, "Could not get file descriptor array entry: Type mismatch");
            } else {
                uint64_t fd = 0;
                plist_get_uint_val(entry, &fd);
                *listenFd = (int)fd;
                ok = true;
            }
        }
    }
    plist_free(checkin);
    return ok;
}

int GWDHelperToolMain(const GWDCommandSpec commands[], const GWDCommandProc commandProcs[]) {
    AssertCommandTable(commands);
    GWD_ASSERT(commandProcs != NULL, "Command procedure table is NULL");
    GWD_ASSERT(CommandCount(commands) == ProcCount(commandProcs), "CommandArraySizeMatchesCommandProcArraySize");

    openlog("HelperTools", LOG_PID | LOG_PERROR, LOG_DAEMON);
    syslog(LOG_INFO, "Starting up");
    WaitForDebugger();

    char failure[512] = "";
    if (signal(SIGPIPE, SIG_IGN) == SIG_ERR) SetFailure(failure, sizeof(failure), "Could not ignore SIGPIPE", errno);
    // The watchdog relies on SIGALRM's default action, whatever was inherited.
    signal(SIGALRM, SIG_DFL);
    sigset_t alarmOnly;
    sigemptyset(&alarmOnly);
    sigaddset(&alarmOnly, SIGALRM);
    sigprocmask(SIG_UNBLOCK, &alarmOnly, NULL);

    int listenFd = -1;
    int queue = -1;
    if (failure[0] == '\0') CheckInWithServiceManager(&listenFd, failure, sizeof(failure));
    if (failure[0] == '\0') {
        queue = epoll_create1(EPOLL_CLOEXEC);
        if (queue < 0) SetFailure(failure, sizeof(failure), "Could not create kqueue", errno);
    }
    if (failure[0] == '\0') {
        struct epoll_event event = {.events = EPOLLIN, .data.fd = listenFd};
        if (epoll_ctl(queue, EPOLL_CTL_ADD, listenFd, &event) < 0)
            SetFailure(failure, sizeof(failure), "Could not add listening socket to kqueue", errno);
    }
    if (failure[0] == '\0') {
        int err = SetNonBlocking(listenFd, true);
        if (err != 0) SetFailure(failure, sizeof(failure), "Could not check/set socket flags", err);
    }

    while (failure[0] == '\0' && !gShutdownRequested) {
        struct epoll_event event;
        int ready = epoll_wait(queue, &event, 1, 120 * 1000);
        if (ready < 0) {
            if (errno == EINTR) continue;
            SetFailure(failure, sizeof(failure), "Unexpected error while listening for connections", errno);
            break;
        }
        if (ready == 0) break;  // idle: the service manager starts us again on the next connection

        EnableWatchdog();
        int connection = accept4(listenFd, NULL, NULL, SOCK_CLOEXEC);
        if (connection < 0) {
            if (errno == EAGAIN || errno == EWOULDBLOCK) {
                syslog(LOG_INFO, "Connection disappeared before we could accept it: %s", strerror(errno));
                DisableWatchdog();
                continue;
            }
            SetFailure(failure, sizeof(failure), "Unexpected error while accepting a connection", errno);
            DisableWatchdog();
            break;
        }
        syslog(LOG_DEBUG, "Request started");
        int err = SetNonBlocking(connection, false);
        if (err == 0) err = HandleConnection(connection, commands, commandProcs);
        close(connection);
        if (err == 0) {
            syslog(LOG_DEBUG, "Request finished");
        } else {
            syslog(LOG_ERR, "Request failed: %s", strerror(err));
        }
        DisableWatchdog();
    }

    if (queue >= 0) close(queue);
    if (failure[0] != '\0') syslog(LOG_ERR, "%s", failure);
    syslog(LOG_INFO, "Shutting down");
    return failure[0] != '\0' ? 1 : 0;
}
