#include "HelperProcess.hpp"

#include <cerrno>

using namespace wireloom::testing;

namespace {

struct SocketPair {
    int ends[2];
    SocketPair() { socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends); }
    ~SocketPair() { close(ends[0]), close(ends[1]); }
    bool nothingToRead(int end) const {
        char byte;
        return recv(ends[end], &byte, 1, MSG_DONTWAIT) < 0 && errno == EAGAIN;
    }
    // Sends "D" with the descriptors in one message, as no honest helper would.
    void sendDescriptors(std::vector<int> descriptors) {
        std::size_t size = sizeof(int) * descriptors.size();
        std::vector<char> control(CMSG_SPACE(size));
        char data = 'D';
        iovec iov{&data, 1};
        msghdr message{
            .msg_iov = &iov, .msg_iovlen = 1, .msg_control = control.data(), .msg_controllen = control.size()};
        cmsghdr* header = CMSG_FIRSTHDR(&message);
        header->cmsg_len = CMSG_LEN(size), header->cmsg_level = SOL_SOCKET, header->cmsg_type = SCM_RIGHTS;
        std::memcpy(CMSG_DATA(header), descriptors.data(), size);
        ASSERT_EQ(sendmsg(ends[0], &message, 0), 1);
    }
};

}  // namespace

TEST(GatewardenStatus, TranslatesBetweenErrnoAndStatuses) {
    for (auto [errnum, status] : {std::pair{0, 0}, {1, 100001}, {106, 100106}, {107, 107}, {-5, -5}})
        EXPECT_EQ(GWDErrnoToOSStatus(errnum), status) << errnum;
    const std::pair<int, int> toErrno[] = {{0, 0},       {-108, 12},    {-3278, 91},      {-3277, 3},     {-3276, 36},
                                           {-3275, 96},  {-3274, 99},   {-3273, 89},      {-3272, 94},    {-3271, 98},
                                           {-3270, 101}, {-3269, 100},  {-3244, 45},      {-3234, 11},    {-3210, 35},
                                           {-3202, 3},   {-3250, 51},   {-3200, 1},       {-3279, -3279}, {100000, 0},
                                           {100002, 2},  {100106, 106}, {100107, 100107}, {-50, -50}};
    for (auto [status, errnum] : toErrno) EXPECT_EQ(GWDOSStatusToErrno(status), errnum) << status;
    EXPECT_EQ(NormaliseOSStatusErrorCode(100089), -128);  // cancelled, whatever ECANCELED is here

    auto errorIn = [](plist_t value) {
        return GWDGetErrorFromResponse(dictionaryWith(kGWDResponseErrorKey, value).get());
    };
    EXPECT_EQ(GWDGetErrorFromResponse(Plist(plist_new_dict()).get()), -4960);
    EXPECT_EQ(errorIn(plist_new_string("0")), -4960);
    EXPECT_EQ(errorIn(plist_new_uint(100002)), 100002);
    EXPECT_EQ(errorIn(plist_new_uint(static_cast<std::uint64_t>(-60006))), -128);
}

TEST(GatewardenCommands, FindCommandMatchesExactlyWithinLimits) {
    std::size_t index = 99;
    auto find = [&](plist_t name) {
        return FindCommand(dictionaryWith(kGWDCommandKey, name).get(), kClientTable, &index);
    };
    EXPECT_EQ(find(plist_new_string("SetBPFAccess")), 0);
    EXPECT_EQ(index, 1u);
    EXPECT_EQ(find(plist_new_string("verifyprivs")), 100002);
    EXPECT_EQ(find(plist_new_uint(1)), -50);
    EXPECT_EQ(FindCommand(Plist(plist_new_dict()).get(), kClientTable, &index), -50);
    EXPECT_EQ(find(plist_new_string("Verify\xff")), -4960);
    EXPECT_EQ(find(plist_new_string("Verify\xc0\x80")), -4960);  // an overlong NUL
    // The limit counts UTF-16 units: the fish takes two.
    std::string fish = "\xf0\x9f\x90\x9f", fishes;
    for (int i = 0; i < 512; i++) fishes += fish;
    for (auto [name, status] : {std::pair{std::string(1024, 'a'), 100002},
                                {std::string(1025, 'a'), -50},
                                {fishes, 100002},
                                {fishes + fish, -50}})
        EXPECT_EQ(find(plist_new_string(name.c_str())), status) << name.size();
}

TEST(GatewardenFraming, BodyOfExactlyTheLimitPassesAndOneMoreIsRefusedUnsent) {
    auto withBody = [](std::size_t wanted) {  // pads a string until the XML is that long
        char* xml = nullptr;
        std::uint32_t length = 0;
        plist_to_xml(dictionaryWith("pad", plist_new_string("")).get(), &xml, &length);
        plist_to_xml_free(xml);
        return dictionaryWith("pad", plist_new_string(std::string(wanted - length, 'a').c_str()));
    };
    SocketPair pair;
    plist_t received = nullptr;
    std::thread reader([&] { EXPECT_EQ(GWDReadDictionary(pair.ends[1], &received), 0); });
    EXPECT_EQ(GWDWriteDictionary(pair.ends[0], withBody(kGWDMaxNumberOfKBytes).get()), 0);
    reader.join();
    ASSERT_NE(received, nullptr);
    EXPECT_EQ(plist_dict_get_size(received), 1u);
    plist_free(received);

    EXPECT_EQ(GWDWriteDictionary(pair.ends[0], withBody(kGWDMaxNumberOfKBytes + 1).get()), EINVAL);
    EXPECT_TRUE(pair.nothingToRead(1));
}

TEST(GatewardenFraming, ReaderRefusesBadLengthsBinaryListsOtherTypesAndDeepNesting) {
    // The sender hangs up after the body: a reader that waits for more sees EPIPE.
    auto readBack = [](const std::string& body, std::optional<std::uint32_t> length = std::nullopt) {
        SocketPair pair;
        std::string bytes = framed(body, length).substr(kGWDAuthorizationExternalFormLength);
        send(pair.ends[0], bytes.data(), bytes.size(), 0);
        shutdown(pair.ends[0], SHUT_WR);
        plist_t result = nullptr;
        int err = GWDReadDictionary(pair.ends[1], &result);
        if (result) plist_free(result);
        return err;
    };
    EXPECT_EQ(readBack(kVerifyPrivsXml), 0);
    EXPECT_EQ(readBack("", 0), EINVAL);
    EXPECT_EQ(readBack("", kGWDMaxNumberOfKBytes + 1), EINVAL);
    EXPECT_EQ(readBack("", 0xFFFFFFFF), EINVAL);
    EXPECT_EQ(readBack(kVerifyPrivsXml, 4000), EPIPE);
    EXPECT_EQ(readBack("bplist00<dict/>"), EINVAL);
    EXPECT_EQ(readBack("<plist version=\"1.0\"><array/></plist>"), EINVAL);
    EXPECT_EQ(readBack("not xml at all"), EINVAL);
    auto nested = [](int depth) {  // the dictionary and depth - 1 arrays
        std::string inner = "<array/>";
        for (int i = 0; i < depth - 1; i++) inner = "<array>" + inner + "</array>";
        return "<plist version=\"1.0\"><dict><key>k</key>" + inner + "</dict></plist>";
    };
    EXPECT_EQ(readBack(nested(kGWDMaxNestingDepth)), 0);
    EXPECT_EQ(readBack(nested(kGWDMaxNestingDepth + 1)), EINVAL);
}

TEST(GatewardenClient, RefusesWhatItCannotSendBeforeConnecting) {
    // "/var/run/" and ".socket" take 16 of the 103 usable bytes.
    EXPECT_EQ(sendRequest("nobody.listens." + std::string(87 - 15, 'x'), "VerifyPrivs").first, 100002);
    EXPECT_EQ(sendRequest("nobody.listens." + std::string(88 - 15, 'x'), "VerifyPrivs").first, -50);
    EXPECT_EQ(sendRequest(std::string(1024, 'x'), "VerifyPrivs").first, -4960);
    // Refused before the identifier is even looked at.
    EXPECT_EQ(sendRequest(std::string(1024, 'x'), "NotInTheClientsTable").first, 100002);
}

TEST(GatewardenDescriptors, FailuresCloseEveryDescriptorReceivedSoFar) {
    std::size_t before = settledDescriptorCount();
    {
        // Two promised, one sent, then the sender hangs up.
        SocketPair pair;
        plist_t array = plist_new_array();
        plist_array_append_item(array, plist_new_uint(0));
        plist_array_append_item(array, plist_new_uint(0));
        ASSERT_EQ(GWDWriteDictionary(pair.ends[0], dictionaryWith(kGWDDescriptorsKey, array).get()), 0);
        pair.sendDescriptors({STDIN_FILENO});
        shutdown(pair.ends[0], SHUT_WR);
        plist_t translated = nullptr;
        EXPECT_EQ(GWDReadDictioanaryTranslatingDescriptors(pair.ends[1], &translated), EPIPE);
        EXPECT_EQ(translated, nullptr);
    }
    {
        // Two descriptors where the reader has room for one: MSG_CTRUNC.
        SocketPair pair;
        pair.sendDescriptors({STDIN_FILENO, STDOUT_FILENO});
        int received = -1;
        EXPECT_EQ(GWDReadDescriptor(pair.ends[1], &received), EINVAL);
        EXPECT_EQ(received, -1);
        EXPECT_TRUE(pair.nothingToRead(0));  // no "A" for a refused one
    }
    EXPECT_EQ(settledDescriptorCount(), before);
}

TEST(GatewardenDiagnosis, ClassifiesByInstalledFiles) {
    FakeSystem system;
    std::string identifier = "org.wireloom.diagnosis" + std::to_string(getpid()) + ".WLCaptureAssistant";
    auto touch = [&](const std::string& path) {
        std::filesystem::create_directories(system.path(path).parent_path());
        std::ofstream(system.path(path)) << "x";
    };
    EXPECT_EQ(GWDDiagnoseFailure(nullptr, identifier.c_str()), kGWDDiagnosisNotInstalled);
    touch("." kGWDHelperToolDirectory "/" + identifier);
    EXPECT_EQ(GWDDiagnoseFailure(nullptr, identifier.c_str()), kGWDDiagnosisPartlyInstalled);
    touch("." kGWDUnitDirectory "/" + identifier + ".socket");
    touch("." kGWDUnitDirectory "/" + identifier + ".service");
    EXPECT_EQ(GWDDiagnoseFailure(nullptr, identifier.c_str()), kGWDDiagnosisUnknown);  // no socket file
    if (int fd = localSocket(socketPathFor(identifier), true); fd >= 0) {              // where /var/run is writable
        EXPECT_EQ(GWDDiagnoseFailure(nullptr, identifier.c_str()), kGWDDiagnosisServiceDisabled);
        close(fd);
        unlink(socketPathFor(identifier).c_str());
    }
}
