#pragma once

#include <unzip.h>

#include <cstddef>
#include <memory>
#include <string>

namespace agent::archive {

/// The entry that an archive stands on, open for reading.
class Entry {
public:
    virtual ~Entry() = default;

    /// Up to `size` bytes of the content; 0 at its end.
    /// @return  -1 if the archive is corrupt or cannot be read
    virtual long read(char* out, std::size_t size) = 0;

    /// To be called at the end: whether the content was that of the checksum.
    virtual bool close() = 0;
};

/// minizip's answer for a wrong password. Ours, since it has none.
constexpr int kBadPassword = -106;

/// @param status  out: minizip's status, or kBadPassword
/// @return        null on failure
std::unique_ptr<Entry> openPlainEntry(unzFile archive, int& status);
/// For sizes that minizip does not know: stored or deflated, and inflated here.
std::unique_ptr<Entry> openRawEntry(unzFile archive, const unz_file_info64& info, int& status);
std::unique_ptr<Entry> openEncryptedEntry(
    unzFile archive, const unz_file_info64& info, const std::string& password, int& status);

} // namespace agent::archive
