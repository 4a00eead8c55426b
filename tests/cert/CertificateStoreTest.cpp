#include "Support.h"
#include "TestCertificates.h"
#include "agent/CertificateStoreFactory.h"
#include "agent/GnuTlsError.h"
#include "agent/SSLCertificateThumbprint.h"
#include "agent/file/Operations.h"

struct StoreTest : FileFixture {
    const std::string m_thumbFile = m_dir / "thumb";
    const FileCertificateStoreDescriptor m_files{m_dir / "cert", m_dir / "key", m_dir / "chain", m_thumbFile};
    const Identity m_identity{CertificateSpec{.subject = {{"CN", "42"}}}};
};

TEST_F(StoreTest, KeepsTheCertificateItsKeyAndTheChain)
{
    const auto store = CertificateStoreFactory(m_log.logger()).createStore(m_files);
    EXPECT_TRUE(store->supportsExporting() && store->supportsAddTrustChain());
    EXPECT_FALSE(store->certificateExists() || store->trustChainExists());
    EXPECT_EQ(store->addCertificate(m_identity.pem(), m_identity.keyPem())->getDeviceId(), 42);
    EXPECT_EQ(modeOf(m_dir / "key"), 0600U) << "a new one";
    ::chmod((m_dir / "key").c_str(), 0666);

    std::string certificate;
    std::string key;
    store->exportCertificatePrivateKeyPair(certificate, key);
    EXPECT_EQ(certificate + key, m_identity.pem() + m_identity.keyPem());
    store->addTrustChain("chain\n");
    store->exportTrustChain(certificate);
    EXPECT_EQ(certificate, "chain\n");

    (void)m_dir.file("thumb", "x");
    store->removeCertificatesByIssuer("any");
    EXPECT_FALSE(store->certificateExists() || file::exists(m_thumbFile));
    EXPECT_TRUE(file::exists(m_dir / "key") && store->trustChainExists()) << "stay";
    store->removeCertificate(); // nothing to do

    EXPECT_THROW(store->addCertificate("no certificate", "k"), GnuTlsError);
    EXPECT_EQ(contentOf(m_dir / "cert") + contentOf(m_dir / "key"), "no certificatek") << "written before";
    EXPECT_EQ(modeOf(m_dir / "key"), 0600U) << "one that was there";
    std::filesystem::remove(m_dir / "key");
    EXPECT_FALSE(store->certificateExists()) << "half of it";
    EXPECT_EQ(thrownBy([&] { store->exportCertificatePrivateKeyPair(certificate, key); }),
        posix("stat64(\"" + (m_dir / "key") + "\") failed", ENOENT));
}

TEST_F(StoreTest, ComesInTwoTypes)
{
    const CertificateStoreFactory factory(m_log.logger());
    EXPECT_EQ(to_string(CertificateStoreType(7)), "Unknown CertificateStoreType: 7");
    const std::string notImplemented = "runtime: Not implemented.";
    EXPECT_EQ(thrownBy([&] { factory.supportsExporting(CertificateStoreType::Native); }), notImplemented);
    EXPECT_TRUE(factory.supportsExporting(CertificateStoreType::File));

    EXPECT_EQ(thrownBy([&] { WindowsCertificateStoreDescriptor(m_log.logger(), ""); }),
        "invalid argument: Requires path of the thumbprint file.");
    const WindowsCertificateStoreDescriptor native(m_log.logger(), m_thumbFile);
    EXPECT_EQ(thrownBy([&] { native.getCertificatePath(); }),
        "runtime: Can't get a certificate store path without a stored thumbprint.");
    (void)m_dir.file("thumb", std::string(40, 'a'));
    EXPECT_EQ(native.getPrivateKeyPath().u8string(), R"(CurrentUser\MY\/)" + std::string(40, 'a'));
    const auto store = factory.createStore(native);
    EXPECT_EQ(thrownBy([&] { store->addCertificate("", ""); }), notImplemented);
}

TEST_F(StoreTest, ThumbprintsAreTheSha1OfTheCertificate)
{
    unsigned char digest[20];
    X509_digest(m_identity.x509(), EVP_sha1(), digest, nullptr);
    const std::string expected = StringUtils::byte_array_to_hex(digest, 20);
    SSLCertificateThumbprint thumbprint(m_log.logger());
    thumbprint.setCertificateContents(m_identity.pem());
    EXPECT_EQ(thumbprint.str(), expected);

    const std::string text = "setCertificateContents: Could not import certificate. - Error: ";
    EXPECT_THAT(thrownBy([&] { thumbprint.setCertificateContents(std::string("none")); }),
        StartsWith("runtime: " + text + gnutls_strerror(GNUTLS_E_BASE64_UNEXPECTED_HEADER_ERROR)));
    EXPECT_THAT(m_log.lines().back(), StartsWith("1 " + text));
    EXPECT_THAT(thrownBy([&] { Certificate(m_log.logger()).getThumbprint(); }),
        StartsWith("runtime: setCertificateContents: Could not get certificate thumbprint. - Error: "));

    thumbprint.setPath(m_thumbFile);
    thumbprint.save();
    EXPECT_EQ(m_log.lines().back(), "3 Saved thumbprint to : " + m_thumbFile);
    EXPECT_EQ(modeOf(m_thumbFile), 0600U);
    (void)m_dir.file("thumb", std::string(41, 'x'));
    thumbprint.save();
    EXPECT_EQ(contentOf(m_thumbFile), expected + "x") << "not truncated";
    thumbprint.remove();
    EXPECT_FALSE(file::exists(m_thumbFile));
    EXPECT_ANY_THROW(thumbprint.createFromThumbFile(m_thumbFile));
    EXPECT_EQ(m_log.lines().back(), "1 "s + PosixError("Failed to open file " + m_thumbFile, ENOENT).what());

    for (const auto& [path, failure] : {std::pair{m_dir / "no/thumb", "Could not open thumbfile: "},
             std::pair{std::string("/dev/full"), "Could not write thumbfile: "}}) {
        thumbprint.setPath(path);
        EXPECT_EQ(thrownBy([&] { thumbprint.save(); }), "runtime: " + (failure + path));
        EXPECT_EQ(m_log.lines().back(), "1 " + (failure + path));
    }
}

TEST_F(StoreTest, ThumbFilesHoldFortyDigitsAndNothingElse)
{
    SSLCertificateThumbprint thumbprint(m_log.logger());
    const std::string good = "0123456789ABCDEFabcdef0123456789ABCDEFab";
    thumbprint.createFromThumbFile(m_dir.file("thumb", good));
    for (const std::string& bad : {std::string(), good + '\n', good.substr(1) + 'g', std::string(100'000, 'a')}) {
        (void)m_dir.file("thumb", bad);
        const std::string text = "Thumbfile contains an invalid thumbprint: " + m_thumbFile;
        EXPECT_EQ(thrownBy([&] { thumbprint.createFromThumbFile(m_thumbFile); }), "runtime: " + text);
        const std::vector<std::string> lines = m_log.lines();
        EXPECT_THAT(lines.at(lines.size() - 2), StartsWith("1 invalid thumbprint: " + bad.substr(0, 40)));
        EXPECT_EQ(lines.back(), "1 " + text);
    }
    EXPECT_EQ(thumbprint.str(), good) << "as it was";
    thumbprint.remove(); // the path stays
}
