#include <Wireloom/core/detail/ByteReader.hpp>
#include <Wireloom/core/detail/Format.hpp>
#include <Wireloom/core/detail/TextWriter.hpp>
#include <Wireloom/packets/PXIPv6Packet.hpp>
#include <Wireloom/packets/detail/IPProtocols.hpp>
#include <Wireloom/packets/detail/PacketEntryTitles.hpp>

#include <array>
#include <cstring>

namespace wireloom {

namespace {

bool isUpperLayer(std::uint8_t type) { return type == 6 || type == 17 || type == 4 || type == 41; }

// How an extension header is walked: the bytes it needs before it can be
// read, and how far it advances given its length byte.
struct ExtensionStep {
    std::uint32_t needs;
    std::uint32_t advance;
};

std::optional<ExtensionStep> extensionStep(std::uint8_t type, std::uint8_t lengthByte) {
    switch (type) {
    // Hop-by-hop and destination options advance by their length byte plus 8,
    // not by (length + 1) * 8, deliberately: only a length byte of 0 walks
    // them as the wire means it.
    case 0:
    case 60: return ExtensionStep{8, lengthByte + 8u};
    case 43: return ExtensionStep{8, lengthByte * 8u + 8u};   // routing
    case 44: return ExtensionStep{8, 8};                      // fragment
    case 51: return ExtensionStep{12, lengthByte * 4u + 8u};  // authentication
    default: return std::nullopt;
    }
}

}  // namespace

constinit PacketClass PXIPv6Packet::kClass("PXIPv6Packet", &PXPacket::staticClass(), &PXIPv6Packet::packetFromData,
                                           &PXIPv6Packet::allowedParentProtocols, detail::kPXIPv6PacketIndex);

std::string PXIPv6Packet::stringFromIPv6Address(const std::uint8_t* a) {
    char text[kIPv6AddressTextSize];
    return std::string(text, writeIPv6Address(a, text));
}

namespace {

// A byte in hex without its leading zero, as printf's %x writes it: the
// digits are written two at a time and the text advances by their count,
// so each byte costs a load and a store rather than a branch.
struct ByteText {
    char digits[2];
    std::uint8_t length;
};

constexpr std::array<ByteText, 256> kByteTexts = [] {
    constexpr char kDigits[] = "0123456789abcdef";
    std::array<ByteText, 256> table{};
    for (unsigned byte = 0; byte < 256; ++byte)
        table[byte] =
            byte >= 0x10 ? ByteText{{kDigits[byte >> 4], kDigits[byte & 0xf]}, 2} : ByteText{{kDigits[byte], 0}, 1};
    return table;
}();

}  // namespace

std::size_t PXIPv6Packet::writeIPv6Address(const std::uint8_t* a, char* out) {
    // The text is at most 39 characters and the room 40, so the second digit
    // written past the last one still lands inside it.
    static_assert(kIPv6AddressTextSize >= 8 * 4 + 7 + 1);
    char* text = out;
    bool pendingZeros = false;
    for (std::size_t i = 0; i < 8; ++i) {
        const unsigned high = a[2 * i];
        const unsigned low = a[2 * i + 1];
        if ((high | low) == 0) {
            pendingZeros = true;
            continue;
        }
        if (pendingZeros) {
            *text++ = ':';
            pendingZeros = false;
        }
        // The two bytes written one after the other: the low byte's leading
        // zero goes (0x20 0x01 reads "201"), and a zero high byte is
        // written over.
        std::memcpy(text, kByteTexts[high].digits, 2);
        text += high ? kByteTexts[high].length : 0;
        std::memcpy(text, kByteTexts[low].digits, 2);
        text += kByteTexts[low].length;
        if (i != 7) *text++ = ':';
    }
    return static_cast<std::size_t>(text - out);
}

std::optional<PacketClassSet> PXIPv6Packet::allowedParentProtocols() { return detail::ipParentClasses(); }

std::optional<PacketClassSet> PXIPv6Packet::restrictedChildProtocols() const {
    return detail::childClassesForIPProtocol(protocol_);
}

PXPacketPtr PXIPv6Packet::packetFromData(const ByteBuffer& data, const PXPacketPtr& parent, std::uint32_t* consumed) {
    return decodeLayer<PXIPv6Packet>(data, parent, consumed);
}

bool PXIPv6Packet::readHeader(PXIPv6Packet& layer, const ByteBuffer& data, const PXPacket*, std::uint32_t* consumed) {
    detail::ByteReader r(data.span());
    const auto length = static_cast<std::uint32_t>(data.size());
    if (length < 40) return false;
    const std::uint32_t payloadLength = r.peekBEAt<std::uint16_t>(4);
    if (length < payloadLength + 40 || r.peekBEAt<std::uint8_t>(0) >> 4 != 6) return false;

    std::uint32_t offset = 40;
    std::uint8_t type = r.peekBEAt<std::uint8_t>(6);
    while (offset < length && !isUpperLayer(type)) {
        auto step = extensionStep(type, 0);
        if (!step || step->needs > length - offset) return false;
        step = extensionStep(type, r.peekBEAt<std::uint8_t>(offset + 1));
        type = r.peekBEAt<std::uint8_t>(offset);
        offset += step->advance;
    }
    if (offset > length || offset > payloadLength + 40) return false;

    layer.protocol_ = type;
    layer.payloadSize_ = payloadLength + 40 - offset;
    r.seek(8);
    r.readInto(layer.sourceAddress_, 16);
    r.readInto(layer.destAddress_, 16);
    *consumed = offset;
    return true;
}

void PXIPv6Packet::appendDescription(std::string& out) const {
    detail::TextWriter(out) << "(IPv6) size " << detail::Decimal{payloadSize_} << " bytes, addr " << sourceAddress()
                            << " => " << destAddress() << ", proto 0x" << detail::Hex{protocol_, 2} << " - ";
    appendGenericDescription(out);
}

std::shared_ptr<PXReportAnalyzerEntry> PXIPv6Packet::reportAnalyzerEntry() const {
    auto entry = PXReportAnalyzerEntry::entry();
    const std::string source = sourceAddress(), dest = destAddress();
    entry->setProtocolLayerAttributedName(detail::addressTitle("IPv6 ", source, dest));
    entry->setValue(payloadSize_, "Payload Size", 0);
    entry->setValue(source, "Source", 7);
    entry->setValue(dest, "Destination", 7);
    return entry;
}

}  // namespace wireloom
