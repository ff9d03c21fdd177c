#include <gtest/gtest.h>
#include "HelperProcess.hpp"

#include <WLCaptureAssistant/WLCaptureAssistantCommon.h>

#include <cerrno>
#include <memory>

using namespace wireloom::testing;

namespace {

struct PlistDeleter {
    void operator()(void* node) const { plist_free(static_cast<plist_t>(node)); }
};
using Plist = std::unique_ptr<void, PlistDeleter>;

Plist dictionaryWith(const char* key, plist_t value) {
    Plist dictionary(plist_new_dict());
    plist_dict_set_item(dictionary.get(), key, value);
    return dictionary;
}

std::size_t openDescriptorCount() {
    return static_cast<std::size_t>(std::distance(std::filesystem::directory_iterator("/proc/self/fd"), {}));
}

struct SocketPair {
    int ends[2];
    SocketPair() { socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends); }
    ~SocketPair() {
        close(ends[0]);
        close(ends[1]);
    }
    bool readerHasNothing() const {
        char byte;
        return recv(ends[1], &byte, 1, MSG_DONTWAIT) < 0 && errno == EAGAIN;
    }
};

const GWDCommandSpec kTable[] = {{"VerifyPrivs", nullptr, nullptr, nullptr, nullptr},
                                 {"SetBPFAccess", nullptr, nullptr, nullptr, nullptr},
                                 {nullptr, nullptr, nullptr, nullptr, nullptr}};

}  // namespace

TEST(GatewardenStatus, TranslatesBetweenErrnoAndStatuses) {
    EXPECT_EQ(GWDErrnoToOSStatus(0), 0);
    EXPECT_EQ(GWDErrnoToOSStatus(1), 100001);
    EXPECT_EQ(GWDErrnoToOSStatus(106), 100106);
    EXPECT_EQ(GWDErrnoToOSStatus(107), 107);
    EXPECT_EQ(GWDErrnoToOSStatus(-5), -5);

    const std::pair<int, int> special[] = {{0, 0},       {-108, 12},    {-3278, 91},      {-3277, 3},     {-3276, 36},
                                           {-3275, 96},  {-3274, 99},   {-3273, 89},      {-3272, 94},    {-3271, 98},
                                           {-3270, 101}, {-3269, 100},  {-3244, 45},      {-3234, 11},    {-3210, 35},
                                           {-3202, 3},   {-3250, 51},   {-3200, 1},       {-3279, -3279}, {100000, 0},
                                           {100002, 2},  {100106, 106}, {100107, 100107}, {-50, -50}};
    for (auto [status, errnum] : special) EXPECT_EQ(GWDOSStatusToErrno(status), errnum) << status;

    EXPECT_EQ(NormaliseOSStatusErrorCode(-60006), -128);
    EXPECT_EQ(NormaliseOSStatusErrorCode(100089), -128);
    EXPECT_EQ(NormaliseOSStatusErrorCode(-60005), -60005);
}

TEST(GatewardenStatus, ResponseErrorIsReadNormalised) {
    EXPECT_EQ(GWDGetErrorFromResponse(Plist(plist_new_dict()).get()), -4960);
    EXPECT_EQ(GWDGetErrorFromResponse(dictionaryWith(kGWDResponseErrorKey, plist_new_string("0")).get()), -4960);
    EXPECT_EQ(GWDGetErrorFromResponse(dictionaryWith(kGWDResponseErrorKey, plist_new_uint(100002)).get()), 100002);
    EXPECT_EQ(
        GWDGetErrorFromResponse(dictionaryWith(kGWDResponseErrorKey, plist_new_uint((std::uint64_t)-60006)).get()),
        -128);
    EXPECT_EQ(GWDGetErrorFromResponse(dictionaryWith(kGWDResponseErrorKey, plist_new_uint(0)).get()), 0);
}

TEST(GatewardenCommands, FindCommandMatchesExactlyWithinLimits) {
    std::size_t index = 99;
    EXPECT_EQ(FindCommand(dictionaryWith(kGWDCommandKey, plist_new_string("SetBPFAccess")).get(), kTable, &index), 0);
    EXPECT_EQ(index, 1u);
    EXPECT_EQ(FindCommand(dictionaryWith(kGWDCommandKey, plist_new_string("verifyprivs")).get(), kTable, &index),
              100002);
    EXPECT_EQ(FindCommand(dictionaryWith(kGWDCommandKey, plist_new_uint(1)).get(), kTable, &index), -50);
    EXPECT_EQ(FindCommand(Plist(plist_new_dict()).get(), kTable, &index), -50);
    EXPECT_EQ(FindCommand(dictionaryWith(kGWDCommandKey, plist_new_string(std::string(1024, 'a').c_str())).get(),
                          kTable, &index),
              100002);
    EXPECT_EQ(FindCommand(dictionaryWith(kGWDCommandKey, plist_new_string(std::string(1025, 'a').c_str())).get(),
                          kTable, &index),
              -50);
    EXPECT_EQ(FindCommand(dictionaryWith(kGWDCommandKey, plist_new_string("Verify\xff")).get(), kTable, &index), -4960);
}

TEST(GatewardenFraming, BodyOfExactlyTheLimitPassesAndOneMoreIsRefusedUnsent) {
    // Grow a string until the XML body is exactly the limit long.
    auto withBody = [](std::size_t wanted) {
        Plist probe = dictionaryWith("pad", plist_new_string(""));
        char* xml = nullptr;
        std::uint32_t length = 0;
        plist_to_xml(probe.get(), &xml, &length);
        plist_to_xml_free(xml);
        return dictionaryWith("pad", plist_new_string(std::string(wanted - length, 'a').c_str()));
    };
    {
        SocketPair pair;
        Plist sent = withBody(kGWDMaxNumberOfKBytes);
        plist_t received = nullptr;
        std::thread reader([&] { EXPECT_EQ(GWDReadDictionary(pair.ends[1], &received), 0); });
        EXPECT_EQ(GWDWriteDictionary(pair.ends[0], sent.get()), 0);
        reader.join();
        ASSERT_NE(received, nullptr);
        EXPECT_EQ(plist_dict_get_size(received), 1u);
        plist_free(received);
    }
    SocketPair pair;
    EXPECT_EQ(GWDWriteDictionary(pair.ends[0], withBody(kGWDMaxNumberOfKBytes + 1).get()), EINVAL);
    EXPECT_TRUE(pair.readerHasNothing());
}

TEST(GatewardenFraming, ReaderRefusesBadLengthsBinaryListsOtherTypesAndDeepNesting) {
    auto readBack = [](const std::string& bytes) {
        SocketPair pair;
        send(pair.ends[0], bytes.data(), bytes.size(), 0);
        shutdown(pair.ends[0], SHUT_WR);
        plist_t result = nullptr;
        int err = GWDReadDictionary(pair.ends[1], &result);
        if (result) plist_free(result);
        return err;
    };
    auto withoutForm = [](const std::string& body, std::optional<std::uint32_t> length = std::nullopt) {
        return framed(body, length).substr(kGWDAuthorizationExternalFormLength);
    };
    EXPECT_EQ(readBack(withoutForm(requestXml("VerifyPrivs"))), 0);
    EXPECT_EQ(readBack(withoutForm("", 0)), EINVAL);
    EXPECT_EQ(readBack(withoutForm("", kGWDMaxNumberOfKBytes + 1)), EINVAL);
    EXPECT_EQ(readBack(withoutForm("", 0xFFFFFFFF)), EINVAL);
    EXPECT_EQ(readBack(withoutForm(requestXml("VerifyPrivs"), 4000)), EPIPE);
    EXPECT_EQ(readBack(withoutForm("bplist00<dict/>")), EINVAL);
    EXPECT_EQ(readBack(withoutForm("<plist version=\"1.0\"><array/></plist>")), EINVAL);
    EXPECT_EQ(readBack(withoutForm("not xml at all")), EINVAL);
    auto nested = [](int depth) {
        std::string inner = "<array/>";
        for (int i = 0; i < depth - 1; i++) inner = "<array>" + inner + "</array>";
        return "<plist version=\"1.0\"><dict><key>k</key>" + inner + "</dict></plist>";
    };
    EXPECT_EQ(readBack(withoutForm(nested(kGWDMaxNestingDepth))), 0);
    EXPECT_EQ(readBack(withoutForm(nested(kGWDMaxNestingDepth + 1))), EINVAL);
}

TEST(GatewardenClient, SocketPathLimitsAreCheckedBeforeConnecting) {
    GWDAuthorizationRef authorization = nullptr;
    ASSERT_EQ(GWDAuthorizationCreate(&authorization), 0);
    auto run = [&](const std::string& identifier) {
        Plist request = dictionaryWith(kGWDCommandKey, plist_new_string("VerifyPrivs"));
        plist_t response = nullptr;
        int32_t status =
            GWDExecuteRequestInHelperTool(authorization, kTable, identifier.c_str(), request.get(), &response, nullptr);
        EXPECT_EQ(response, nullptr);
        return status;
    };
    // "/var/run/" and ".socket" take 16 of the 103 usable bytes.
    EXPECT_EQ(run("nobody.listens." + std::string(87 - 15, 'x')), GWDErrnoToOSStatus(ENOENT));
    EXPECT_EQ(run("nobody.listens." + std::string(88 - 15, 'x')), -50);
    EXPECT_EQ(run(std::string(1024, 'x')), -4960);
    // A command the client's own table lacks is never sent.
    Plist unknown = dictionaryWith(kGWDCommandKey, plist_new_string("Unknown"));
    plist_t response = nullptr;
    EXPECT_EQ(GWDExecuteRequestInHelperTool(authorization, kTable, "x", unknown.get(), &response, nullptr), 100002);
    GWDAuthorizationFree(authorization, kGWDAuthorizationFlagDestroyRights);
}

TEST(GatewardenDescriptors, EmptyArrayTranslatesToEmptyArray) {
    SocketPair pair;
    ASSERT_EQ(
        GWDWriteDictionaryAndDescriptors(pair.ends[0], dictionaryWith(kGWDDescriptorsKey, plist_new_array()).get()), 0);
    plist_t translated = nullptr;
    ASSERT_EQ(GWDReadDictioanaryTranslatingDescriptors(pair.ends[1], &translated), 0);
    plist_t array = plist_dict_get_item(translated, kGWDDescriptorsKey);
    ASSERT_EQ(plist_get_node_type(array), PLIST_ARRAY);
    EXPECT_EQ(plist_array_get_size(array), 0u);
    plist_free(translated);
}

TEST(GatewardenDescriptors, FailureClosesEveryDescriptorReceivedSoFar) {
    std::size_t before = openDescriptorCount();
    {
        // Two promised, one sent, then the sender hangs up.
        SocketPair pair;
        Plist response(plist_new_dict());
        plist_t array = plist_new_array();
        plist_array_append_item(array, plist_new_uint(0));
        plist_array_append_item(array, plist_new_uint(0));
        plist_dict_set_item(response.get(), kGWDDescriptorsKey, array);
        ASSERT_EQ(GWDWriteDictionary(pair.ends[0], response.get()), 0);
        std::thread sender([&] {
            EXPECT_EQ(GWDWriteDescriptor(pair.ends[0], STDIN_FILENO), 0);
            shutdown(pair.ends[0], SHUT_WR);
        });
        plist_t translated = nullptr;
        EXPECT_EQ(GWDReadDictioanaryTranslatingDescriptors(pair.ends[1], &translated), EPIPE);
        EXPECT_EQ(translated, nullptr);
        sender.join();
    }
    EXPECT_EQ(openDescriptorCount(), before);
}

TEST(GatewardenDescriptors, TruncatedAncillaryDataIsAnErrorAndClosesWhatArrived) {
    std::size_t before = openDescriptorCount();
    {
        SocketPair pair;
        // Two descriptors where the reader has room for one: MSG_CTRUNC.
        int descriptors[2] = {STDIN_FILENO, STDOUT_FILENO};
        alignas(cmsghdr) char control[CMSG_SPACE(sizeof(descriptors))] = {};
        char data = 'D';
        iovec iov{&data, 1};
        msghdr message{};
        message.msg_iov = &iov;
        message.msg_iovlen = 1;
        message.msg_control = control;
        message.msg_controllen = sizeof(control);
        cmsghdr* header = CMSG_FIRSTHDR(&message);
        header->cmsg_len = CMSG_LEN(sizeof(descriptors));
        header->cmsg_level = SOL_SOCKET;
        header->cmsg_type = SCM_RIGHTS;
        std::memcpy(CMSG_DATA(header), descriptors, sizeof(descriptors));
        ASSERT_EQ(sendmsg(pair.ends[0], &message, 0), 1);
        int received = -1;
        EXPECT_EQ(GWDReadDescriptor(pair.ends[1], &received), EINVAL);
        EXPECT_EQ(received, -1);
        EXPECT_TRUE(pair.readerHasNothing());  // and no "A" was sent back
        char answer;
        EXPECT_LT(recv(pair.ends[0], &answer, 1, MSG_DONTWAIT), 0);
    }
    EXPECT_EQ(openDescriptorCount(), before);
}

TEST(GatewardenDiagnosis, ClassifiesByInstalledFiles) {
    auto root = makeTemporaryFolder();
    setenv(kGWDSystemRootVariable, root.c_str(), 1);
    std::string identifier = "org.wireloom.diagnosis.WLCaptureAssistant";
    EXPECT_EQ(GWDDiagnoseFailure(nullptr, identifier.c_str()), kGWDDiagnosisNotInstalled);
    auto touch = [&](const std::string& path) {
        std::filesystem::create_directories((root / path.substr(1)).parent_path());
        std::ofstream(root / path.substr(1)) << "x";
    };
    touch(kGWDHelperToolDirectory "/" + identifier);
    EXPECT_EQ(GWDDiagnoseFailure(nullptr, identifier.c_str()), kGWDDiagnosisPartlyInstalled);
    touch(kGWDUnitDirectory "/" + identifier + ".socket");
    touch(kGWDUnitDirectory "/" + identifier + ".service");
    EXPECT_EQ(GWDDiagnoseFailure(nullptr, identifier.c_str()), kGWDDiagnosisUnknown);  // no socket at all
    if (access("/var/run", W_OK) == 0) {
        // A socket file nobody listens on refuses connections.
        std::string socketPath = socketPathFor(identifier);
        int fd = socket(AF_UNIX, SOCK_STREAM, 0);
        sockaddr_un address{};
        address.sun_family = AF_UNIX;
        std::strncpy(address.sun_path, socketPath.c_str(), sizeof(address.sun_path) - 1);
        unlink(socketPath.c_str());
        ASSERT_EQ(bind(fd, reinterpret_cast<sockaddr*>(&address), sizeof(address)), 0);
        EXPECT_EQ(GWDDiagnoseFailure(nullptr, identifier.c_str()), kGWDDiagnosisServiceDisabled);
        close(fd);
        unlink(socketPath.c_str());
    }
    unsetenv(kGWDSystemRootVariable);
    std::filesystem::remove_all(root);
}
