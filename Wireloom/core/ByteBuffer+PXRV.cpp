// The PXRV utilities of ByteBuffer: digests and base64 through OpenSSL's
// libcrypto, hex and printable-text conversions by hand.
#include <Wireloom/core/ByteBuffer.hpp>

#include <openssl/evp.h>

namespace wireloom {

namespace {

constexpr char kHexDigits[] = "0123456789abcdef";

std::string hexOf(const unsigned char* bytes, std::size_t length) {
    std::string text(length * 2, '\0');
    for (std::size_t i = 0; i < length; ++i) {
        text[2 * i] = kHexDigits[bytes[i] >> 4];
        text[2 * i + 1] = kHexDigits[bytes[i] & 0x0f];
    }
    return text;
}

std::string digestHex(const EVP_MD* algorithm, const ByteBuffer& buffer) {
    unsigned char digest[EVP_MAX_MD_SIZE];
    unsigned int length = 0;
    if (EVP_Digest(buffer.data(), buffer.size(), digest, &length, algorithm, nullptr) != 1) return {};
    return hexOf(digest, length);
}

}  // namespace

std::optional<std::string> ByteBuffer::base64EncodedString() const {
    // EVP_EncodeBlock writes one unbroken line: no line length was asked for.
    std::string text(4 * ((size_ + 2) / 3), '\0');
    int written = EVP_EncodeBlock(reinterpret_cast<unsigned char*>(text.data()), data(), static_cast<int>(size_));
    if (written < 0) return std::nullopt;
    text.resize(static_cast<std::size_t>(written));
    return text;
}

std::string ByteBuffer::sha256HexDigest() const { return digestHex(EVP_sha256(), *this); }
std::string ByteBuffer::md5HexDigest() const { return digestHex(EVP_md5(), *this); }
std::string ByteBuffer::hexEncodedString() const { return hexOf(data(), size_); }

std::string ByteBuffer::bestEffortASCIIStringDiscardingInvalidBytes() const {
    std::string text;
    text.reserve(size_);
    for (std::uint8_t byte : span()) {
        if (byte >= 32 && byte <= 126) text.push_back(static_cast<char>(byte));
    }
    return text;
}

ByteBuffer ByteBuffer::dataWithHexString(std::string_view text) {
    std::vector<std::uint8_t> bytes;
    bytes.reserve(text.size() / 2);
    int high = -1;
    for (char c : text) {
        int nibble;
        if (c >= '0' && c <= '9')
            nibble = c - '0';
        else if (c >= 'a' && c <= 'f')
            nibble = c - 'a' + 10;
        else
            continue;
        if (high < 0) {
            high = nibble;
        } else {
            bytes.push_back(static_cast<std::uint8_t>(high << 4 | nibble));
            high = -1;
        }
    }
    if (high >= 0) bytes.push_back(static_cast<std::uint8_t>(high << 4));
    return ByteBuffer(std::move(bytes));
}

}  // namespace wireloom
