#include "archive/Entry.h"

#include <zlib.h>

#include <algorithm>
#include <array>
#include <cstdint>
#include <optional>
#include <utility>

namespace agent::archive {

namespace {

/// Decrypted and inflated by minizip.
class LibraryEntry : public Entry {
public:
    explicit LibraryEntry(unzFile archive)
        : m_archive(archive)
    {
    }
    LibraryEntry(const LibraryEntry&) = delete;
    LibraryEntry& operator=(const LibraryEntry&) = delete;
    ~LibraryEntry() override
    {
        if (m_archive != nullptr) (void)unzCloseCurrentFile(m_archive);
    }

    long read(char* out, std::size_t size) override
    {
        return std::max(unzReadCurrentFile(m_archive, out, static_cast<unsigned int>(size)), -1);
    }

    // Only closing compares the checksum.
    bool close() override { return unzCloseCurrentFile(std::exchange(m_archive, nullptr)) == UNZ_OK; }

private:
    unzFile m_archive;
};

/// The cipher of APPNOTE.TXT, 6.1 (traditional PKWARE encryption).
class TraditionalCipher {
public:
    explicit TraditionalCipher(const std::string& password)
    {
        for (const char c : password) update(static_cast<std::uint8_t>(c));
    }

    std::uint8_t decrypt(std::uint8_t byte)
    {
        const std::uint32_t mixed = (m_keys[2] & 0xFFFFU) | 2U;
        byte ^= static_cast<std::uint8_t>(mixed * (mixed ^ 1U) >> 8U);
        update(byte);
        return byte;
    }

private:
    static std::uint32_t crc(std::uint32_t value, std::uint32_t byte)
    {
        return static_cast<std::uint32_t>(s_crcTable[(value ^ byte) & 0xFFU]) ^ (value >> 8U);
    }

    void update(std::uint8_t byte)
    {
        m_keys[0] = crc(m_keys[0], byte);
        m_keys[1] = (m_keys[1] + (m_keys[0] & 0xFFU)) * 134'775'813U + 1U;
        m_keys[2] = crc(m_keys[2], m_keys[1] >> 24U);
    }

    static inline const z_crc_t* const s_crcTable = get_crc_table();
    std::array<std::uint32_t, 3> m_keys{0x12345678, 0x23456789, 0x34567890};
};

/// zlib's stream knows its own address: neither copied nor moved.
class InflateStream {
public:
    InflateStream()
        : m_isOpen(inflateInit2(&m_stream, -MAX_WBITS) == Z_OK)
    {
    }
    InflateStream(const InflateStream&) = delete;
    InflateStream& operator=(const InflateStream&) = delete;
    ~InflateStream()
    {
        if (m_isOpen) (void)inflateEnd(&m_stream);
    }

    bool isOpen() const { return m_isOpen; }
    z_stream* operator->() { return &m_stream; }
    int inflate() { return ::inflate(&m_stream, Z_NO_FLUSH); }

private:
    z_stream m_stream{};
    bool m_isOpen;
};

/// Read raw, and decrypted and inflated here: distributions build minizip without decryption, and its sizes have
/// 32 bits.
class RawEntry : public Entry {
public:
    RawEntry(unzFile archive, const unz_file_info64& info)
        : m_raw(archive)
        , m_left(info.compressed_size)
        , m_isDeflated(info.compression_method == Z_DEFLATED)
        , m_expectedCrc(info.crc)
        , m_checkByte(static_cast<std::uint8_t>((info.flag & kSizesFollow) != 0 ? info.dosDate >> 8U : info.crc >> 24U))
    {
    }

    /// Reads twelve bytes of noise, of which the last one tells whether the password is right, in 255 cases of 256.
    bool beginDecryption(const std::string& password)
    {
        m_cipher.emplace(password);
        std::array<char, 12> header{};
        std::size_t size = 0;
        while (size < header.size()) {
            const long got = readStored(header.data() + size, header.size() - size);
            if (got <= 0) return false;
            size += static_cast<std::size_t>(got);
        }
        return static_cast<std::uint8_t>(header.back()) == m_checkByte;
    }

    long read(char* out, std::size_t size) override
    {
        const long got = m_isDeflated ? readDeflated(out, size) : readStored(out, size);
        if (got > 0) m_crc = crc32(m_crc, reinterpret_cast<const Bytef*>(out), static_cast<uInt>(got));
        return got;
    }

    bool close() override { return m_crc == m_expectedCrc; }

private:
    static constexpr unsigned long kSizesFollow = 8; // flag: written before the checksum was known

    long readStored(char* out, std::size_t size)
    {
        const long got = m_raw.read(out, std::min(size, m_left));
        if (got <= 0) return got;
        m_left -= static_cast<std::size_t>(got);
        if (m_cipher) {
            std::transform(out, out + got, out,
                [this](char c) { return static_cast<char>(m_cipher->decrypt(static_cast<std::uint8_t>(c))); });
        }
        return got;
    }

    long readDeflated(char* out, std::size_t size)
    {
        if (!m_inflate.isOpen()) return -1;
        m_inflate->next_out = reinterpret_cast<Bytef*>(out);
        m_inflate->avail_out = static_cast<uInt>(size);
        int status = m_isComplete ? Z_STREAM_END : Z_OK;
        while (status == Z_OK && m_inflate->avail_out != 0) {
            if (m_inflate->avail_in == 0) {
                const long got = readStored(m_input.data(), m_input.size());
                if (got <= 0) return -1; // the stream goes on, the entry does not
                m_inflate->next_in = reinterpret_cast<Bytef*>(m_input.data());
                m_inflate->avail_in = static_cast<uInt>(got);
            }
            status = m_inflate.inflate();
        }
        m_isComplete = status == Z_STREAM_END;
        if (status != Z_OK && !m_isComplete) return -1;
        return static_cast<long>(size - m_inflate->avail_out);
    }

    LibraryEntry m_raw;
    std::size_t m_left; // compressed bytes, encryption header included
    std::optional<TraditionalCipher> m_cipher;
    InflateStream m_inflate;
    bool m_isDeflated;
    bool m_isComplete = false;
    unsigned long m_expectedCrc;
    std::uint8_t m_checkByte;
    unsigned long m_crc = 0;
    std::array<char, 65'536> m_input{};
};

std::unique_ptr<RawEntry> openRaw(unzFile archive, const unz_file_info64& info, int& status)
{
    int method = 0;
    int level = 0;
    status = unzOpenCurrentFile2(archive, &method, &level, 1);
    return status == UNZ_OK ? std::make_unique<RawEntry>(archive, info) : nullptr;
}

} // namespace

std::unique_ptr<Entry> openPlainEntry(unzFile archive, int& status)
{
    status = unzOpenCurrentFile(archive);
    return status == UNZ_OK ? std::make_unique<LibraryEntry>(archive) : nullptr;
}

std::unique_ptr<Entry> openRawEntry(unzFile archive, const unz_file_info64& info, int& status)
{
    return openRaw(archive, info, status);
}

std::unique_ptr<Entry> openEncryptedEntry(
    unzFile archive, const unz_file_info64& info, const std::string& password, int& status)
{
    status = password.empty() ? kBadPassword : unzOpenCurrentFilePassword(archive, password.c_str());
    if (status == UNZ_OK) return std::make_unique<LibraryEntry>(archive);
    if (status != UNZ_PARAMERROR) return nullptr; // which a build without decryption says to any password

    auto entry = openRaw(archive, info, status);
    if (!entry || entry->beginDecryption(password)) return entry;
    status = kBadPassword;
    return nullptr;
}

} // namespace agent::archive
