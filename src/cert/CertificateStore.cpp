#include "agent/CertificateStore.h"

#include "core/Io.h"

#include "agent/DataProtectionEncoderDecoder.h"
#include "agent/File.h"
#include "agent/FileWriters.h"
#include "agent/PosixError.h"
#include "agent/file/Operations.h"

#include <fcntl.h>
#include <sys/stat.h>

#include <cerrno>
#include <stdexcept>
#include <utility>

namespace agent {

namespace {

constexpr mode_t kOwnerOnly = 0600;

/// Makes sure that a file is there, and is nobody's but its owner's, before a secret is written to it. What is no
/// regular file keeps its mode: it might be /dev/null.
void restrictToOwner(const Path& path)
{
    const UniqueFd fd = io::open(path, O_WRONLY | O_CREAT | O_NONBLOCK, kOwnerOnly);
    if (!fd.isOpen()) {
        // Not left to the writer: where this failed for the moment only, it would make a file that all can read.
        const int error = errno;
        throw PosixError("Failed to open: " + path.u8string(), error);
    }
    struct stat64 status {};
    const bool isKnown = ::fstat64(fd.get(), &status) == 0;
    if (isKnown && (!S_ISREG(status.st_mode) || ::fchmod(fd.get(), kOwnerOnly) == 0)) return;
    const int error = errno;
    throw PosixError(io::failed(isKnown ? "fchmod" : "fstat64", path), error);
}

void removeIfThere(const Path& path)
{
    if (file::exists(path)) file::remove(path, false);
}

std::vector<unsigned char> readAll(const Path& path)
{
    const UniqueFd fd = io::open(path, O_RDONLY | O_NONBLOCK);
    std::vector<unsigned char> content(file::size(path));
    std::size_t size = 0;
    while (size < content.size()) {
        const ssize_t count = io::read(fd.get(), content.data() + size, content.size() - size);
        if (count <= 0) throw std::runtime_error("Failed to read all content from: " + path.u8string());
        size += static_cast<std::size_t>(count);
    }
    return content;
}

} // namespace

ISSLCertificateStore::~ISSLCertificateStore() = default;

FileCertificateStore::FileCertificateStore(info::Logger& logger, const ICertificateStoreDescriptor& descriptor)
    : m_logger(logger)
    , m_descriptor(descriptor)
{
}

bool FileCertificateStore::certificateExists() const
{
    return file::exists(m_descriptor.getCertificatePath()) && file::exists(m_descriptor.getPrivateKeyPath());
}

bool FileCertificateStore::trustChainExists() const
{
    return file::exists(m_descriptor.getTrustChainPath());
}

bool FileCertificateStore::supportsAddTrustChain() const
{
    return true;
}

void FileCertificateStore::addTrustChain(const std::string& pem)
{
    truncateAndWrite(m_logger, m_descriptor.getTrustChainPath(), pem);
}

bool FileCertificateStore::supportsExporting() const
{
    return canExport();
}

void FileCertificateStore::exportCertificatePrivateKeyPair(
    std::string& certificatePem, std::string& privateKeyPem) const
{
    std::string certificate = File(m_logger, m_descriptor.getCertificatePath()).slurp();
    privateKeyPem = DataProtectionEncoderDecoder().decode(readAll(m_descriptor.getPrivateKeyPath()));
    certificatePem = std::move(certificate);
}

void FileCertificateStore::exportTrustChain(std::string& pem) const
{
    pem = File(m_logger, m_descriptor.getTrustChainPath()).slurp();
}

std::shared_ptr<Certificate> FileCertificateStore::addCertificate(
    const std::string& certificatePem, const std::string& privateKeyPem)
{
    truncateAndWrite(m_logger, m_descriptor.getCertificatePath(), certificatePem);
    const Path keyPath = m_descriptor.getPrivateKeyPath();
    const std::vector<unsigned char> key = DataProtectionEncoderDecoder().encode(privateKeyPem);
    restrictToOwner(keyPath);
    truncateAndWrite(m_logger, keyPath, std::string(key.begin(), key.end()));
    return std::make_shared<Certificate>(m_logger, m_descriptor.getCertificatePath());
}

void FileCertificateStore::removeCertificate()
{
    removeIfThere(m_descriptor.getCertificatePath());
    removeIfThere(m_descriptor.getThumbprintPath());
}

void FileCertificateStore::removeCertificatesByIssuer(const std::string& /*issuer*/)
{
    removeCertificate();
}

bool FileCertificateStore::canExport()
{
    return true;
}

namespace {

[[noreturn]] void notImplemented()
{
    throw std::runtime_error("Not implemented.");
}

} // namespace

SSLCertificateStore::SSLCertificateStore(info::Logger& logger, const ICertificateStoreDescriptor& descriptor)
    : m_logger(logger)
    , m_descriptor(descriptor)
{
}

bool SSLCertificateStore::certificateExists() const
{
    notImplemented();
}

bool SSLCertificateStore::trustChainExists() const
{
    notImplemented();
}

bool SSLCertificateStore::supportsAddTrustChain() const
{
    notImplemented();
}

void SSLCertificateStore::addTrustChain(const std::string& /*pem*/)
{
    notImplemented();
}

bool SSLCertificateStore::supportsExporting() const
{
    notImplemented();
}

void SSLCertificateStore::exportCertificatePrivateKeyPair(
    std::string& /*certificatePem*/, std::string& /*privateKeyPem*/) const
{
    notImplemented();
}

void SSLCertificateStore::exportTrustChain(std::string& /*pem*/) const
{
    notImplemented();
}

std::shared_ptr<Certificate> SSLCertificateStore::addCertificate(
    const std::string& /*certificatePem*/, const std::string& /*privateKeyPem*/)
{
    notImplemented();
}

void SSLCertificateStore::removeCertificate()
{
    notImplemented();
}

void SSLCertificateStore::removeCertificatesByIssuer(const std::string& /*issuer*/)
{
    notImplemented();
}

bool SSLCertificateStore::canExport()
{
    notImplemented();
}

} // namespace agent
