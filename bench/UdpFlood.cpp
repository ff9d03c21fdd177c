// Sends small UDP datagrams to 127.0.0.1:PORT at a steady rate, for the live
// capture benchmark (live_capture.sh).
//
//   udp_flood PORT RATE_PER_SECOND SECONDS
#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <thread>

int main(int argc, char** argv) {
    if (argc != 4) {
        std::fprintf(stderr, "usage: %s PORT RATE_PER_SECOND SECONDS\n", argv[0]);
        return 2;
    }
    const int port = std::atoi(argv[1]);
    const long rate = std::atol(argv[2]);
    const double seconds = std::atof(argv[3]);
    const int fd = socket(AF_INET, SOCK_DGRAM, 0);
    sockaddr_in to{};
    to.sin_family = AF_INET;
    to.sin_port = htons(static_cast<std::uint16_t>(port));
    to.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    const char payload[32] = "wireloom live capture benchmark";
    constexpr long kBatch = 64;
    iovec data{const_cast<char*>(payload), sizeof payload};
    mmsghdr messages[kBatch]{};
    for (mmsghdr& message : messages) {
        message.msg_hdr.msg_name = &to;
        message.msg_hdr.msg_namelen = sizeof to;
        message.msg_hdr.msg_iov = &data;
        message.msg_hdr.msg_iovlen = 1;
    }
    // Paced per millisecond: each millisecond's share, then wait for the next.
    using Clock = std::chrono::steady_clock;
    const auto start = Clock::now();
    const long total = static_cast<long>(static_cast<double>(rate) * seconds);
    long sent = 0;
    while (sent < total) {
        const double elapsed = std::chrono::duration<double>(Clock::now() - start).count();
        const long due = std::min(total, static_cast<long>(elapsed * static_cast<double>(rate)) + rate / 1000);
        // sendmmsg: one system call per batch, so that the sender is not the limit.
        while (sent < due) {
            const unsigned batch = static_cast<unsigned>(std::min<long>(due - sent, kBatch));
            const int done = sendmmsg(fd, messages, batch, 0);
            if (done <= 0) break;
            sent += done;
        }
        std::this_thread::sleep_until(start + std::chrono::microseconds((sent * 1000000) / rate));
    }
    close(fd);
    // What was sent, and at what rate it really went out.
    std::printf("%ld %.0f\n", sent,
                static_cast<double>(sent) / std::chrono::duration<double>(Clock::now() - start).count());
    return 0;
}
