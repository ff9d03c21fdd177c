/*
 * The privileged helper: started by the service manager as root on the first
 * connection to its socket, it serves the capture assistant's commands and
 * quits when idle. Run as "<helper> install" (through pkexec) it installs
 * itself: the executable, its socket and service units, and enables the socket.
 */
#include "GatewardenInternal.h"
#include "WLCaptureAssistantCommon.h"

#include <dirent.h>
#include <errno.h>
#include <fcntl.h>
#include <grp.h>
#include <pwd.h>
#include <stdbool.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <syslog.h>
#include <unistd.h>

WL_EMBED_INFO_PLIST(WLCaptureAssistantLabel, WL_CAPTURE_ASSISTANT_VERSION);

static int32_t VerifyPrivs(GWDAuthorizationRef authorization, const void* userData, plist_t request, plist_t response,
                           GWDLogClientRef logClient, GWDLogMessageRef logMessage) {
    (void)authorization, (void)userData, (void)request, (void)logClient, (void)logMessage;
    bool root = getuid() == 0 && geteuid() == 0;
    plist_dict_set_item(response, kWLResponseKey, plist_new_string(root ? kWLVerifiedAnswer : "Not running as root"));
    return 0;
}

static int32_t ShutdownHelper(GWDAuthorizationRef authorization, const void* userData, plist_t request,
                              plist_t response, GWDLogClientRef logClient, GWDLogMessageRef logMessage) {
    (void)authorization, (void)userData, (void)request, (void)response;
    GWDLog(logClient, logMessage, kGWDLogInfo, "Shutdown requested");
    GWDHelperToolRequestShutdown();
    return 0;
}

/* Answers the failure under "error" and returns it as a status. */
static int32_t Refuse(plist_t response, int err, const char* text) {
    plist_dict_set_item(response, kWLErrorKey, plist_new_string(text));
    return GWDErrnoToOSStatus(err);
}

static bool UserIsInGroup(const struct passwd* user, const struct group* group) {
    if (user->pw_gid == group->gr_gid) return true;
    for (char** member = group->gr_mem; member != NULL && *member != NULL; member++)
        if (strcmp(*member, user->pw_name) == 0) return true;
    return false;
}

static int32_t SetBPFAccess(GWDAuthorizationRef authorization, const void* userData, plist_t request, plist_t response,
                            GWDLogClientRef logClient, GWDLogMessageRef logMessage) {
    (void)userData;
    char text[2400];
    plist_t userNode = plist_dict_get_item(request, kWLUserKey);
    uint64_t length = 0;
    const char* name = userNode != NULL && plist_get_node_type(userNode) == PLIST_STRING
                           ? plist_get_string_ptr(userNode, &length)
                           : NULL;
    if (name == NULL || length == 0 || strlen(name) != length) return Refuse(response, EINVAL, "No user was named");
    struct passwd* target = getpwnam(name);
    if (target == NULL) {
        snprintf(text, sizeof(text), "No such user: %s", name);
        return Refuse(response, ENOENT, text);
    }
    uid_t targetUid = target->pw_uid;

    // Only root may grant access to someone else: any local user can reach
    // this socket.
    uid_t peerUid = (uid_t)-1;
    GWDAuthorizationGetSubject(authorization, NULL, &peerUid, NULL);
    if (peerUid != 0 && peerUid != targetUid) {
        snprintf(text, sizeof(text), "uid %ld may not grant capture access to %s", (long)peerUid, name);
        GWDLog(logClient, logMessage, kGWDLogWarning, "%s", text);
        return Refuse(response, EPERM, text);
    }

    struct group* group = getgrnam(kWLAccessBPFGroup);
    if (group == NULL) {
        char* argv[] = {"groupadd", "--system", kWLAccessBPFGroup, NULL};
        // Someone else may have created it meanwhile: the group is what counts.
        GWDRunTool(argv);
        if ((group = getgrnam(kWLAccessBPFGroup)) == NULL)
            return Refuse(response, EIO, "Could not create the group " kWLAccessBPFGroup);
        GWDLog(logClient, logMessage, kGWDLogInfo, "Created the group %s", kWLAccessBPFGroup);
    }
    gid_t gid = group->gr_gid;
    target = getpwnam(name);
    if (target == NULL) return Refuse(response, ENOENT, "The user disappeared");
    if (!UserIsInGroup(target, group)) {
        char* argv[] = {"usermod", "--append", "--groups", kWLAccessBPFGroup, "--", (char*)name, NULL};
        if (GWDRunTool(argv) != 0) {
            snprintf(text, sizeof(text), "Could not add %s to the group %s", name, kWLAccessBPFGroup);
            return Refuse(response, EIO, text);
        }
        GWDLog(logClient, logMessage, kGWDLogInfo, "Added %s to the group %s", name, kWLAccessBPFGroup);
    }

    char devices[1100];
    if (!GWDSystemPath(devices, sizeof(devices), "/dev")) return Refuse(response, ENAMETOOLONG, "Device path too long");
    DIR* directory = opendir(devices);
    if (directory == NULL) {
        snprintf(text, sizeof(text), "Could not list %s: %s", devices, strerror(errno));
        return Refuse(response, errno, text);
    }
    int changed = 0;
    int err = 0;
    for (struct dirent* entry = readdir(directory); entry != NULL; entry = readdir(directory)) {
        if (strncmp(entry->d_name, "bpf", 3) != 0) continue;
        struct stat info;
        // A link could point anywhere; only the devices themselves are changed.
        if (fstatat(dirfd(directory), entry->d_name, &info, AT_SYMLINK_NOFOLLOW) < 0 || S_ISLNK(info.st_mode)) continue;
        if (fchownat(dirfd(directory), entry->d_name, (uid_t)-1, gid, AT_SYMLINK_NOFOLLOW) < 0 ||
            fchmodat(dirfd(directory), entry->d_name, (info.st_mode & 07777) | S_IRGRP | S_IWGRP, 0) < 0) {
            err = errno;
            snprintf(text, sizeof(text), "Could not change %s/%s: %s", devices, entry->d_name, strerror(err));
            break;
        }
        changed++;
    }
    closedir(directory);
    if (err != 0) return Refuse(response, err, text);
    GWDLog(logClient, logMessage, kGWDLogInfo, "Gave %d packet-filter devices to the group %s for %s", changed,
           kWLAccessBPFGroup, name);
    return 0;
}

static const GWDCommandProc kCommandProcs[] = {VerifyPrivs, ShutdownHelper, SetBPFAccess, NULL};

/* ---- Installing ----------------------------------------------------- */

static bool MakeDirectories(const char* path) {
    char partial[1100];
    size_t length = strlen(path);
    if (length >= sizeof(partial)) return false;
    for (size_t i = 1; i <= length; i++) {
        if (path[i] != '/' && path[i] != '\0') continue;
        memcpy(partial, path, i);
        partial[i] = '\0';
        if (mkdir(partial, 0755) < 0 && errno != EEXIST) return false;
    }
    return true;
}

/* Writes a file beside its final path and renames it over, so the service
   manager never sees half of one. */
static bool WriteFileAtomically(const char* path, const char* bytes, size_t length, mode_t mode) {
    char temporary[1200];
    snprintf(temporary, sizeof(temporary), "%s.new", path);
    unlink(temporary);
    int fd = open(temporary, O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, mode);
    if (fd < 0) return false;
    bool ok = fchmod(fd, mode) == 0;
    // GWDWrite moves at most a megabyte at a time.
    for (size_t offset = 0; ok && offset < length; offset += kGWDMaxNumberOfKBytes) {
        size_t chunk = length - offset < kGWDMaxNumberOfKBytes ? length - offset : kGWDMaxNumberOfKBytes;
        ok = GWDWrite(fd, bytes + offset, chunk) == 0;
    }
    if (ok && geteuid() == 0) ok = fchown(fd, 0, 0) == 0;
    ok = close(fd) == 0 && ok;
    if (ok) ok = rename(temporary, path) == 0;
    if (!ok) unlink(temporary);
    return ok;
}

static bool CopyOwnExecutable(const char* destination) {
    int fd = open("/proc/self/exe", O_RDONLY | O_CLOEXEC);
    if (fd < 0) return false;
    struct stat info;
    char* bytes = NULL;
    bool ok = fstat(fd, &info) == 0 && (bytes = malloc((size_t)info.st_size + 1)) != NULL;
    size_t done = 0;
    while (ok && done < (size_t)info.st_size) {
        ssize_t count = read(fd, bytes + done, (size_t)info.st_size - done);
        if (count < 0 && errno == EINTR) continue;
        if (count <= 0) ok = false;
        done += count > 0 ? (size_t)count : 0;
    }
    close(fd);
    if (ok) ok = WriteFileAtomically(destination, bytes, done, 0755);
    free(bytes);
    return ok;
}

static int Install(void) {
    openlog("HelperTools", LOG_PID | LOG_PERROR, LOG_DAEMON);
    // Only a test's private system root may be written by anyone but root.
    const char* root = getenv(kGWDSystemRootVariable);
    bool realSystem = root == NULL || root[0] == '\0';
    if (realSystem && geteuid() != 0) {
        syslog(LOG_ERR, "Installing the helper needs root");
        return 1;
    }
    char toolDirectory[1100], unitDirectory[1100], tool[1200], socketUnit[1200], serviceUnit[1200];
    if (!GWDSystemPath(toolDirectory, sizeof(toolDirectory), "%s", kGWDHelperToolDirectory) ||
        !GWDSystemPath(unitDirectory, sizeof(unitDirectory), "%s", kGWDUnitDirectory)) {
        syslog(LOG_ERR, "System root path too long");
        return 1;
    }
    snprintf(tool, sizeof(tool), "%s/%s", toolDirectory, WLCaptureAssistantLabel);
    snprintf(socketUnit, sizeof(socketUnit), "%s/%s.socket", unitDirectory, WLCaptureAssistantLabel);
    snprintf(serviceUnit, sizeof(serviceUnit), "%s/%s.service", unitDirectory, WLCaptureAssistantLabel);

    char socketText[1024], serviceText[1024];
    int socketLength = snprintf(socketText, sizeof(socketText),
                                "[Unit]\nDescription=Wireloom capture access helper socket\n\n"
                                "[Socket]\nListenStream=" kGWDSocketPathFormat
                                "\nFileDescriptorName=MasterSocket\nSocketMode=0666\nAccept=no\n\n"
                                "[Install]\nWantedBy=sockets.target\n",
                                WLCaptureAssistantLabel);
    int serviceLength = snprintf(serviceText, sizeof(serviceText),
                                 "[Unit]\nDescription=Wireloom capture access helper\nRequires=%s.socket\n\n"
                                 "[Service]\nExecStart=%s/%s\n",
                                 WLCaptureAssistantLabel, kGWDHelperToolDirectory, WLCaptureAssistantLabel);

    if (!MakeDirectories(toolDirectory) || !MakeDirectories(unitDirectory) || !CopyOwnExecutable(tool) ||
        !WriteFileAtomically(socketUnit, socketText, (size_t)socketLength, 0644) ||
        !WriteFileAtomically(serviceUnit, serviceText, (size_t)serviceLength, 0644)) {
        syslog(LOG_ERR, "Could not install the helper: %s", strerror(errno));
        return 1;
    }
    syslog(LOG_INFO, "Installed %s and its units", tool);
    if (!realSystem) return 0;

    // A helper still running the old executable leaves when stopped; the
    // socket starts the new one on the next request.
    char* stop[] = {"systemctl", "stop", WLCaptureAssistantLabel ".service", NULL};
    char* reload[] = {"systemctl", "daemon-reload", NULL};
    char* enable[] = {"systemctl", "enable", "--now", WLCaptureAssistantLabel ".socket", NULL};
    GWDRunTool(stop);
    if (GWDRunTool(reload) != 0 || GWDRunTool(enable) != 0) {
        syslog(LOG_ERR, "Could not enable %s.socket", WLCaptureAssistantLabel);
        return 1;
    }
    return 0;
}

int main(int argc, char** argv) {
    // Started without the service manager's environment, the tools the
    // commands run are still found where the system keeps them.
    setenv("PATH", "/usr/local/sbin:/usr/local/bin:/usr/sbin:/usr/bin:/sbin:/bin", 0);
    if (argc == 2 && strcmp(argv[1], "install") == 0) return Install();
    if (argc != 1) {
        fprintf(stderr, "usage: %s [install]\n", argv[0]);
        return 2;
    }
    return GWDHelperToolMain(kWLUpdateHelperCommandSet, kCommandProcs);
}
