#include "agent/BufferChecksum.h"

#include "agent/crc32c.h"

#include <gcrypt.h>

#include <type_traits>

namespace agent {

namespace {

struct CloseDigest {
    void operator()(gcry_md_hd_t digest) const noexcept { gcry_md_close(digest); }
};
using DigestPtr = std::unique_ptr<std::remove_pointer_t<gcry_md_hd_t>, CloseDigest>;

// libgcrypt asks every program to do this; a program that has done it in its own way is left alone.
void initialiseGcrypt()
{
    static const bool isDone = [] {
        if (gcry_control(GCRYCTL_INITIALIZATION_FINISHED_P) == 0) {
            (void)gcry_check_version(nullptr);
            (void)gcry_control(GCRYCTL_INITIALIZATION_FINISHED, 0);
        }
        return true;
    }();
    (void)isDone;
}

DigestPtr openCrc32()
{
    initialiseGcrypt();
    gcry_md_hd_t digest = nullptr;
    return DigestPtr(gcry_md_open(&digest, GCRY_MD_CRC32, 0) == 0 ? digest : nullptr);
}

} // namespace

IBufferChecksumGenerator::~IBufferChecksumGenerator() = default;
BufferChecksumGeneratorLibCRC32c::~BufferChecksumGeneratorLibCRC32c() = default;
BufferChecksumGeneratorGCryptCRC32::~BufferChecksumGeneratorGCryptCRC32() = default;
BufferChecksumGeneratorFactory::~BufferChecksumGeneratorFactory() = default;

bool BufferChecksumGeneratorLibCRC32c::generateChecksum(char* buffer, unsigned int length, unsigned int& checksum) const
{
    checksum = crc32c(0, buffer, length);
    return true;
}

bool BufferChecksumGeneratorGCryptCRC32::generateChecksum(
    char* buffer, unsigned int length, unsigned int& checksum) const
{
    if (buffer == nullptr) return false;
    const DigestPtr digest = openCrc32();
    if (!digest) return false;
    gcry_md_write(digest.get(), buffer, length);

    // The digest reads like a hexadecimal number: its first byte is the most significant one.
    constexpr int kDigestBytes = 4;
    const unsigned char* const bytes = gcry_md_read(digest.get(), GCRY_MD_CRC32); // finalises it first
    unsigned int value = 0;
    for (int i = 0; i < kDigestBytes; ++i) value = value << 8 | bytes[i];
    checksum = value;
    return true;
}

std::unique_ptr<IBufferChecksumGenerator> BufferChecksumGeneratorFactory::createBufferChecksumGenerator(
    ChecksumType type) const
{
    if (type == ChecksumType::CRC32) return std::make_unique<BufferChecksumGeneratorGCryptCRC32>();
    return std::make_unique<BufferChecksumGeneratorLibCRC32c>();
}

} // namespace agent
