#include <Wireloom/core/detail/NumberText.hpp>
#include <Wireloom/packets/PXIPv4Packet.hpp>
#include <Wireloom/packets/PXIPv6Packet.hpp>
#include <Wireloom/packets/detail/PacketEntryTitles.hpp>
#include <Wireloom/text/WLColors.hpp>

namespace wireloom::detail {

std::shared_ptr<WLAttributedString> addressTitle(const char* word, const std::string& source, const std::string& dest) {
    return WLAttributedString::stringWithFormat(
        WLTokenText, word, WLTokenColorPointer, WLColors::sourceAddressColorPointer(), WLTokenText, source, WLTokenPop,
        WLTokenText, " => ", WLTokenColorPointer, WLColors::destAddressColorPointer(), WLTokenText, dest, WLTokenPop,
        WLTokenEnd);
}

void setTransportTitle(PXReportAnalyzerEntry& entry, const char* word, const PXPacket* ipLayer,
                       std::uint16_t sourcePort, std::uint16_t destPort) {
    std::string source, dest;
    if (auto v4 = dynamic_cast<const PXIPv4Packet*>(ipLayer)) {
        source = v4->sourceAddress();
        dest = v4->destAddress();
    } else if (auto v6 = dynamic_cast<const PXIPv6Packet*>(ipLayer)) {
        source = v6->sourceAddress();
        dest = v6->destAddress();
    } else {
        // Without its IP layer (an RTP packet decoded on its own) the word alone.
        std::string plain(word);
        if (!plain.empty() && plain.back() == ' ') plain.pop_back();
        entry.setProtocolLayerName(plain);
        return;
    }
    char sourceText[kNumberTextCapacity], destText[kNumberTextCapacity];
    entry.setProtocolLayerAttributedName(WLAttributedString::stringWithFormat(
        WLTokenText, word, WLTokenColorPointer, WLColors::sourceAddressColorPointer(), WLTokenText, source, WLTokenPop,
        WLTokenText, ":", WLTokenColorPointer, WLColors::sourcePortColorPointer(), WLTokenText,
        detail::decimalText(sourceText, sourcePort), WLTokenPop, WLTokenText, " => ", WLTokenColorPointer,
        WLColors::destAddressColorPointer(), WLTokenText, dest, WLTokenPop, WLTokenText, ":", WLTokenColorPointer,
        WLColors::destPortColorPointer(), WLTokenText, detail::decimalText(destText, destPort), WLTokenPop,
        WLTokenEnd));
}

}  // namespace wireloom::detail
