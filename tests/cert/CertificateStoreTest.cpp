#include "Support.h"
#include "TestCertificates.h"
#include "agent/CertificateStoreFactory.h"
#include "agent/DataProtectionEncoderDecoder.h"
#include "agent/GnuTlsError.h"
#include "agent/SSLCertificateThumbprint.h"
#include "agent/file/Operations.h"

#include <sys/stat.h>

namespace agent {
namespace {

using test::Identity;
using test::thrownBy;

mode_t modeOf(const std::string& path)
{
    struct stat status {};
    ::stat(path.c_str(), &status);
    return status.st_mode & 07777;
}

class StoreTest : public testing::Test {
protected:
    // Lines at the level of an error.
    std::vector<std::string> errors() const
    {
        std::vector<std::string> lines = m_log.lines();
        std::erase_if(lines, [](const std::string& line) { return line[0] != '1'; });
        return lines;
    }

    test::CapturingLogger m_log;
    test::TempDir m_dir;
    const std::string m_thumbFile = m_dir / "thumb";
    const FileCertificateStoreDescriptor m_files{m_dir / "cert", m_dir / "key", m_dir / "chain", m_thumbFile};
    const Identity m_identity{test::CertificateSpec{.subject = {{"CN", "42"}}}};
};

TEST_F(StoreTest, KeepsTheCertificateItsKeyAndTheChain)
{
    const auto store = CertificateStoreFactory(m_log.logger()).createStore(m_files);
    EXPECT_TRUE(store->supportsExporting() && store->supportsAddTrustChain());
    EXPECT_FALSE(store->certificateExists() || store->trustChainExists());
    EXPECT_EQ(store->addCertificate(m_identity.pem(), m_identity.keyPem())->getDeviceId(), 42);
    EXPECT_TRUE(store->certificateExists());

    std::string certificate;
    std::string key;
    store->exportCertificatePrivateKeyPair(certificate, key);
    EXPECT_EQ(certificate + key, m_identity.pem() + m_identity.keyPem());
    store->addTrustChain("chain\n");
    EXPECT_TRUE(store->trustChainExists());
    store->exportTrustChain(certificate);
    EXPECT_EQ(certificate, "chain\n");

    (void)m_dir.file("thumb", "x");
    store->removeCertificatesByIssuer("any");
    EXPECT_FALSE(store->certificateExists() || file::exists(m_thumbFile));
    EXPECT_EQ(test::contentOf(m_dir / "key"), m_identity.keyPem()) << "stays";
    EXPECT_TRUE(store->trustChainExists());
    store->removeCertificate(); // nothing to do

    EXPECT_THROW(store->addCertificate("no certificate", "k"), GnuTlsError);
    EXPECT_EQ(test::contentOf(m_dir / "cert") + test::contentOf(m_dir / "key"), "no certificatek") << "written before";
    std::filesystem::remove(m_dir / "key");
    EXPECT_FALSE(store->certificateExists()) << "half of it";
    EXPECT_EQ(thrownBy([&] { store->exportCertificatePrivateKeyPair(certificate, key); }),
        test::posix("stat64(\"" + (m_dir / "key") + "\") failed", ENOENT));
    std::filesystem::create_directory(m_dir / "key");
    EXPECT_EQ(thrownBy([&] { store->exportCertificatePrivateKeyPair(certificate, key); }),
        "runtime: Failed to read all content from: " + (m_dir / "key"));
}

TEST_F(StoreTest, KeepsPrivateKeysFromOthers)
{
    FileCertificateStore store(m_log.logger(), m_files);
    const mode_t before = ::umask(0);
    store.addCertificate(m_identity.pem(), m_identity.keyPem());
    EXPECT_EQ(modeOf(m_dir / "key"), 0600U) << "new";
    ::chmod((m_dir / "key").c_str(), 0666);
    store.addCertificate(m_identity.pem(), m_identity.keyPem());
    EXPECT_EQ(modeOf(m_dir / "key"), 0600U) << "existing";
    ::umask(before);
    const FileCertificateStoreDescriptor nowhere(m_dir / "cert", "/dev/null", "", "");
    FileCertificateStore(m_log.logger(), nowhere).addCertificate(m_identity.pem(), "k");
    EXPECT_EQ(modeOf("/dev/null"), 0666U) << "everybody's";
    const std::string bytes("a\0\xff", 3);
    EXPECT_EQ(DataProtectionEncoderDecoder().decode(DataProtectionEncoderDecoder().encode(bytes)), bytes);
}

TEST_F(StoreTest, ComesInTwoTypes)
{
    struct Foreign : FileCertificateStoreDescriptor {
        using FileCertificateStoreDescriptor::FileCertificateStoreDescriptor;
        CertificateStoreType getStoreType() const override { return CertificateStoreType(7); }
    };
    const CertificateStoreFactory factory(m_log.logger());
    EXPECT_EQ(to_string(CertificateStoreType::Native) + to_string(CertificateStoreType::File), "NativeFile");
    EXPECT_EQ(thrownBy([&] { factory.createStore(Foreign("", "", "", "")); }),
        "invalid argument: must provide registered type to create certificate store. Type provided: Unknown "
        "CertificateStoreType: 7");
    const std::string notImplemented = "runtime: Not implemented.";
    EXPECT_EQ(thrownBy([&] { factory.supportsExporting(CertificateStoreType::Native); }), notImplemented);
    EXPECT_TRUE(factory.supportsExporting(CertificateStoreType::File));
    EXPECT_FALSE(factory.supportsExporting(CertificateStoreType(5)));

    EXPECT_EQ(thrownBy([&] { WindowsCertificateStoreDescriptor(m_log.logger(), ""); }),
        "invalid argument: Requires path of the thumbprint file.");
    const WindowsCertificateStoreDescriptor native(m_log.logger(), m_thumbFile);
    EXPECT_EQ(native.getThumbprintPath(), m_thumbFile);
    EXPECT_EQ(native.getTrustChainPath(), "");
    EXPECT_EQ(thrownBy([&] { native.getCertificatePath(); }),
        "runtime: Can't get a certificate store path without a stored thumbprint.");
    (void)m_dir.file("thumb", std::string(40, 'a'));
    EXPECT_EQ(native.getPrivateKeyPath().u8string(), R"(CurrentUser\MY\/)" + std::string(40, 'a'));
    EXPECT_EQ(native.getCertificatePath(), native.getPrivateKeyPath());

    const auto store = factory.createStore(native);
    std::string text;
    const std::function<void()> operations[] = {[&] { store->certificateExists(); }, [&] { store->trustChainExists(); },
        [&] { store->supportsAddTrustChain(); }, [&] { store->addTrustChain(""); }, [&] { store->supportsExporting(); },
        [&] { store->exportCertificatePrivateKeyPair(text, text); }, [&] { store->exportTrustChain(text); },
        [&] { store->addCertificate("", ""); }, [&] { store->removeCertificate(); },
        [&] { store->removeCertificatesByIssuer(""); }};
    for (const auto& operation : operations) EXPECT_EQ(thrownBy(operation), notImplemented);
}

TEST_F(StoreTest, ThumbprintsAreTheSha1OfTheCertificate)
{
    unsigned char digest[20];
    X509_digest(m_identity.x509(), EVP_sha1(), digest, nullptr);
    std::string expected;
    for (const unsigned int byte : digest) (expected += "0123456789abcdef"[byte / 16]) += "0123456789abcdef"[byte % 16];

    const Certificate certificate(m_log.logger(), m_dir.file("cert", m_identity.pem()));
    EXPECT_EQ(certificate.getThumbprint()->str(), expected);
    SSLCertificateThumbprint thumbprint(m_log.logger());
    EXPECT_EQ(thumbprint.str(), "");
    thumbprint.setCertificateContents(m_identity.pem());
    EXPECT_EQ(thumbprint.str(), expected);

    const auto expectFailure = [&](const std::function<void()>& action, const std::string& reason, int code) {
        const std::string text = "setCertificateContents: " + reason + " - Error: " + gnutls_strerror(code);
        EXPECT_EQ(thrownBy(action), std::string("runtime: ") + GnuTlsError(text, code).what());
        EXPECT_THAT(errors(), testing::Contains("1 " + text));
    };
    expectFailure([&] { thumbprint.setCertificateContents(std::string("none")); }, "Could not import certificate.",
        GNUTLS_E_BASE64_UNEXPECTED_HEADER_ERROR);
    expectFailure([&] { Certificate(m_log.logger()).getThumbprint(); }, "Could not get certificate thumbprint.",
        GNUTLS_E_INVALID_REQUEST);
    EXPECT_EQ(thumbprint.str(), expected);

    const mode_t before = ::umask(0);
    thumbprint.setPath(m_thumbFile);
    thumbprint.save();
    ::umask(before);
    EXPECT_EQ(m_log.lines().back(), "3 Saved thumbprint to : " + m_thumbFile);
    EXPECT_EQ(modeOf(m_thumbFile), 0600U);
    EXPECT_EQ(test::contentOf(m_thumbFile), expected);
    (void)m_dir.file("thumb", std::string(41, 'x'));
    thumbprint.save();
    EXPECT_EQ(test::contentOf(m_thumbFile), expected + "x") << "not truncated";
    thumbprint.remove();
    EXPECT_FALSE(file::exists(m_thumbFile));

    for (const auto& [path, text] : {std::pair{m_dir / "no/thumb", "Could not open thumbfile: "},
             std::pair{std::string("/dev/full"), "Could not write thumbfile: "}}) {
        thumbprint.setPath(path);
        EXPECT_EQ(thrownBy([&] { thumbprint.save(); }), "runtime: " + (text + path));
        EXPECT_EQ(errors().back(), "1 " + (text + path));
    }
}

TEST_F(StoreTest, ThumbFilesHoldFortyDigitsAndNothingElse)
{
    SSLCertificateThumbprint thumbprint(m_log.logger());
    const std::string good = "0123456789ABCDEFabcdef0123456789ABCDEFab";
    thumbprint.createFromThumbFile(m_dir.file("thumb", good));
    for (const std::string& bad : {std::string(), good + '\n', good.substr(1), good.substr(1) + 'g', good + 'a',
             good.substr(1) + '\0', std::string(100'000, 'a')}) {
        const std::size_t errorsBefore = errors().size();
        (void)m_dir.file("thumb", bad);
        EXPECT_EQ(thrownBy([&] { thumbprint.createFromThumbFile(m_thumbFile); }),
            "runtime: Thumbfile contains an invalid thumbprint: " + m_thumbFile);
        EXPECT_EQ(errors().size(), errorsBefore + 2);
        EXPECT_THAT(errors()[errorsBefore], testing::StartsWith("1 invalid thumbprint: " + bad.substr(0, 40)));
        EXPECT_EQ(errors().back(), "1 Thumbfile contains an invalid thumbprint: " + m_thumbFile);
    }
    EXPECT_EQ(thumbprint.str(), good) << "as it was";
}

} // namespace
} // namespace agent
