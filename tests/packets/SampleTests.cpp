// The bundled samples: they are what the generator writes today, and every
// frame of them, cut short at any length, still decodes into the layers that
// fit.
#include "PacketTestSupport.hpp"
#include "support/Paths.hpp"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdlib>
#include <fstream>
#include <iterator>
#include <memory>

using namespace wireloom;
using namespace wireloom::testing;

namespace {

struct Sample {
    const char* name;
    int linkLayerType;
};
constexpr Sample kSamples[] = {{"demo.pcap", DLT_EN10MB}, {"demo-loopback.pcap", DLT_NULL}};

class Samples : public ::testing::Test {
protected:
    void SetUp() override { directory_ = (sourceDir() / "samples").string() + "/"; }
    std::string directory_;
};

std::string contents(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>()};
}

TEST_F(Samples, CommittedFilesAreWhatTheGeneratorWrites) {
    const std::string generator = (binaryDir() / "tools/wireloom-make-samples").string();
    if (!std::ifstream(generator)) GTEST_SKIP() << "the sample generator is not built";
    const std::string fresh = ::testing::TempDir() + "fresh-samples";
    ASSERT_EQ(std::system(("mkdir -p '" + fresh + "' && '" + generator + "' '" + fresh + "' >/dev/null").c_str()), 0);
    for (const Sample& sample : kSamples)
        EXPECT_TRUE(contents(directory_ + sample.name) == contents(fresh + "/" + sample.name))
            << sample.name << " is stale: cmake --build <build> --target samples, then commit it";
}

TEST_F(Samples, EveryCutOfEveryFrameDecodesToAPrefixOfTheWholeFrame) {
    for (const Sample& sample : kSamples) {
        std::string error;
        auto file = PXCaptureFile::open(directory_ + sample.name, &error);
        ASSERT_TRUE(file) << error;
        EXPECT_EQ(file->linkLayerType(), sample.linkLayerType) << sample.name;

        const pcap_pkthdr* header = nullptr;
        const std::uint8_t* data = nullptr;
        for (int frame = 1; file->nextRecord(&header, &data, &error); ++frame) {
            const std::vector<std::string> whole =
                layerNames(PXPacket::packetWithHeader(*header, data, sample.linkLayerType));
            std::size_t previousDepth = 0;
            for (std::uint32_t length = 0; length <= header->caplen; ++length) {
                // A buffer of exactly the cut length, so that the sanitizers
                // see any read past it.
                auto cut = std::make_unique<std::uint8_t[]>(length);
                std::copy(data, data + length, cut.get());
                pcap_pkthdr cutHeader = *header;
                cutHeader.caplen = length;
                const std::vector<std::string> names =
                    layerNames(PXPacket::packetWithHeader(cutHeader, cut.get(), sample.linkLayerType));

                ASSERT_LE(names.size(), whole.size()) << sample.name << " frame " << frame << " cut at " << length;
                EXPECT_TRUE(std::equal(names.begin(), names.end(), whole.begin()))
                    << sample.name << " frame " << frame << " cut at " << length;
                // More bytes never decode fewer layers.
                EXPECT_GE(names.size(), previousDepth) << sample.name << " frame " << frame << " cut at " << length;
                previousDepth = names.size();
            }
            EXPECT_EQ(previousDepth, whole.size());
        }
        EXPECT_TRUE(error.empty()) << error;
    }
}

}  // namespace
