#pragma once

#include "agent/Export.h"

#include <memory>

namespace agent {

/// Checksums a block of data. The order of its virtual functions is part of the binary
/// interface.
///
///     const auto generator
///         = BufferChecksumGeneratorFactory().createBufferChecksumGenerator(ChecksumType::CRC32C);
///     unsigned int checksum = 0;
///     if (!generator->generateChecksum(block, blockSize, checksum)) return false;
///
/// Threads: generators have no state; any number of threads may use one.
class AGENTKIT_API IBufferChecksumGenerator {
public:
    virtual ~IBufferChecksumGenerator();

    /// @param buffer    read only
    /// @param length    bytes
    /// @param checksum  set only when the result is true
    /// @return          whether a checksum was produced
    virtual bool generateChecksum(char* buffer, unsigned int length, unsigned int& checksum) const = 0;

protected:
    IBufferChecksumGenerator() = default;
    IBufferChecksumGenerator(const IBufferChecksumGenerator&) = default;
    IBufferChecksumGenerator& operator=(const IBufferChecksumGenerator&) = default;
};

/// CRC-32C by the fastest routine of agent/crc32c.h, from register 0 and without inversion. Never fails; the buffer
/// must not be null.
/// Whether the last length % 8 bytes count depends on the processor: lengths are to be multiples of 8.
class AGENTKIT_API BufferChecksumGeneratorLibCRC32c : public IBufferChecksumGenerator {
public:
    ~BufferChecksumGeneratorLibCRC32c() override;
    bool generateChecksum(char* buffer, unsigned int length, unsigned int& checksum) const override;
};

/// CRC-32 (IEEE 802.3) by libgcrypt. Fails for a null buffer and where libgcrypt does not offer the digest, as
/// in its FIPS mode. Initialises libgcrypt on first use, unless the program has done so.
class AGENTKIT_API BufferChecksumGeneratorGCryptCRC32 : public IBufferChecksumGenerator {
public:
    ~BufferChecksumGeneratorGCryptCRC32() override;
    bool generateChecksum(char* buffer, unsigned int length, unsigned int& checksum) const override;
};

enum class ChecksumType : int { CRC32 = 0, CRC32C = 1 };

/// Makes either generator. The order of its virtual functions is part of the binary interface.
class AGENTKIT_API BufferChecksumGeneratorFactory {
public:
    virtual ~BufferChecksumGeneratorFactory();

    /// @param type  CRC32 gives that generator, any other value the one for CRC-32C
    virtual std::unique_ptr<IBufferChecksumGenerator> createBufferChecksumGenerator(ChecksumType type) const;
};

} // namespace agent
