// The root helper reads whatever a local client sends: the request framing,
// the XML property-list parser behind it and the command lookup must take
// any bytes without crashing, hanging or leaking.
#include "FuzzTarget.hpp"

#include <WLCaptureAssistant/GatewardenInternal.h>
#include <WLCaptureAssistant/WLCaptureAssistantCommon.h>

#include <sys/socket.h>
#include <unistd.h>

WIRELOOM_FUZZ_TARGET(helper_request) {
    int ends[2];
    if (socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends) != 0) return 0;
    // The reader runs on this thread, so the input is sent whole before it
    // reads; what does not fit the socket's buffer is cut off, as a client
    // that hung up would leave it.
    for (std::size_t sent = 0; sent < size;) {
        ssize_t count = send(ends[0], data + sent, size - sent, MSG_DONTWAIT | MSG_NOSIGNAL);
        if (count <= 0) break;
        sent += static_cast<std::size_t>(count);
    }
    shutdown(ends[0], SHUT_WR);
    plist_t request = nullptr;
    if (GWDReadDictionary(ends[1], &request) == 0) {
        std::size_t index = 0;
        FindCommand(request, kWLUpdateHelperCommandSet, &index);
        plist_free(request);
    }
    close(ends[0]);
    close(ends[1]);
    return 0;
}
