#include "agent/Certificate.h"
#include "Support.h"
#include "TestCertificates.h"
#include "agent/DistinguishedName.h"
#include "agent/GnuTlsError.h"

constexpr const char* kComment = "2.16.840.1.113730.1.13";

TEST(DistinguishedName, IsTakenApart)
{
    for (const auto& [text, expected] : std::vector<std::pair<std::string, std::string>>{
             {"", "|||-1"},
             {"CN= 77abc", " 77abc|||77"},
             {"CN=2147483648", "2147483648|||-1"},
             {"CN=1.234", "1.234|||1"},            // no grouping
             {"CN=a\\,b,cn=c, O=d", "a\\,b|||-1"}, // escapes stay; case and blanks count
             {"OU=a+O=b,CN=1\\+2", "1\\+2|b|a|1"}, // cut at '+', but where it is escaped
             {"CN=+5", "|||-1"},                   // so this is set twice, to nothing at last
             {"CN=1,CN=2,C=X", "2|||2"},
         }) {
        const DistinguishedName name(text);
        EXPECT_EQ(name.getCommonName() + '|' + name.getOrganization() + '|' + name.getOrganizationalUnit() + '|' +
                      std::to_string(name.getDeviceId()),
            expected);
        EXPECT_EQ(name.isValid(), expected != "|||-1");
    }
}

struct CertificateTest : FileFixture {
    // What a store would import.
    Certificate certificate(const std::string& pem) { return {m_log.logger(), m_dir.file("c.pem", pem)}; }
    std::string importError(const std::string& path)
    {
        return thrownBy([&] { const Certificate c(m_log.logger(), Path(path)); });
    }

    const Identity m_authority{CertificateSpec{.subject = {{"CN", "Authority"}}}};
};

TEST_F(CertificateTest, ImportsAChainInTheOrderOfTheFile)
{
    const Identity leaf({.subject = {{"CN", "12345"}}, .validFrom = -5, .validUntil = 50}, &m_authority);
    auto holder = std::make_shared<Certificate>(
        m_log.logger(), Path(m_dir.file("chain.pem", leaf.pem() + m_authority.pem() + leaf.pem())));
    EXPECT_EQ(holder->getNameBlob() + holder->getIssuer() + holder->getIssuerBlob(), "12345AuthorityAuthority");
    EXPECT_EQ(holder->getDeviceId(), 12345);
    EXPECT_EQ(holder->getExpirationTime() - holder->getActivationTime(), 55);
    const auto second = holder->getIssuerCertificate();
    EXPECT_EQ(second->getName(), "Authority");
    EXPECT_EQ(second->getIssuerCertFromChain()->getName(), "12345");
    const auto chain = holder->getChain();
    EXPECT_THAT(std::vector(chain.begin() + 1, chain.end()), second->getChain()) << "borrowed, not copied";
    holder.reset();
    EXPECT_EQ(second->getIssuerCertificate()->getIssuerCertificate(), nullptr) << "lives on";
}

TEST_F(CertificateTest, RefusesWhatIsNone)
{
    const auto refused = [](const std::string& path, const std::string& reason) {
        return "invalid argument: Failed to import file " + path + " as certificate (" + reason + ")";
    };
    const std::string pem = m_authority.pem();
    const std::string full = m_dir.file("full", pem + std::string(50'000 - pem.size(), '\n'));
    EXPECT_EQ(importError(full), "nothing") << "the largest file";
    std::ofstream(full, std::ios::app) << '\n';
    EXPECT_EQ(importError(full), refused(full, "file too large"));
    EXPECT_EQ(importError(m_dir / "missing"), refused(m_dir / "missing", "failed to open file"));
    EXPECT_THROW(certificate(pem + pem.substr(0, 100) + "\n-----END CERTIFICATE-----\n"), GnuTlsError);
    EXPECT_EQ(importError(m_dir.file("empty", "")),
        std::string("runtime: ") +
            GnuTlsError("Failed to import certificate (import error)", GNUTLS_E_NO_CERTIFICATE_FOUND).what());
    EXPECT_EQ(thrownBy([&] { Certificate c(m_log.logger(), Cert::Peer, nullptr); }), "invalid argument: Bad session");
}

TEST_F(CertificateTest, TakesNamesOfAnySize)
{
    CertificateSpec large{.subject = {}};
    for (int i = 0; i < 200; ++i) large.subject.emplace_back("OU", std::string(64, 'x'));
    large.subject.emplace_back("CN", "77");
    EXPECT_EQ(certificate(Identity(large).pem()).getDeviceId(), 77);
}

TEST_F(CertificateTest, VerifiesAClientAgainstTheLocalChain)
{
    const Identity other(CertificateSpec{.subject = {{"CN", "Other"}}});
    const Certificate local = certificate(other.pem() + m_authority.pem());
    using Case = std::tuple<const char*, const Identity*, long, long, std::vector<std::string>>;
    for (const auto& [why, issuer, validFrom, validUntil, expected] : {
             Case{"an authority that comes second", &m_authority, -60, 60, {"earlier"}},
             Case{"expired", &m_authority, -60, -30, {"earlier", "Cert expired"}},
             Case{"not yet valid", &m_authority, 60, 90, {"earlier", "Cert invalid activation time"}},
             Case{"signed by itself", nullptr, -60, 60, {"earlier", "Cert signer not found"}},
         }) {
        Certificate client = certificate(Identity({.validFrom = validFrom, .validUntil = validUntil}, issuer).pem());
        unsigned int status = 0;
        std::vector<std::string> errors = {"earlier"}; // stays
        EXPECT_EQ(client.gnutlsCertificateVerify(local, status, errors), expected.size() > 1) << why;
        EXPECT_EQ(errors, expected) << why;
    }
    unsigned int status = 0;
    std::vector<std::string> errors;
    EXPECT_TRUE(Certificate(m_log.logger()).gnutlsCertificateVerify(local, status, errors)) << "nothing to verify";
    EXPECT_THAT(errors, ElementsAre("Internal error - failed to verify client cert against local certificate"));
}

static std::string signedBy(const Identity& identity, const std::string& text)
{
    const std::unique_ptr<EVP_MD_CTX, decltype(&EVP_MD_CTX_free)> context(EVP_MD_CTX_new(), EVP_MD_CTX_free);
    std::string signature(256, '\0');
    std::size_t size = signature.size();
    EVP_DigestSignInit(context.get(), nullptr, EVP_sha1(), nullptr, identity.key());
    EVP_DigestSign(context.get(), reinterpret_cast<unsigned char*>(signature.data()), &size,
        reinterpret_cast<const unsigned char*>(text.data()), text.size());
    return signature;
}

TEST_F(CertificateTest, VerifiesPairTickets)
{
    std::string ticket = "ticket";
    const auto verify = [&](long validFrom, long validUntil) {
        const Identity local(CertificateSpec{.validFrom = validFrom, .validUntil = validUntil, .isRsa = true});
        const Certificate holder = certificate(local.pem());
        std::string signature = signedBy(local, ticket);
        const gnutls_datum_t data{reinterpret_cast<unsigned char*>(ticket.data()), 6};
        const gnutls_datum_t proof{reinterpret_cast<unsigned char*>(signature.data()), 256};
        const unsigned int flags = GNUTLS_VERIFY_ALLOW_SIGN_WITH_SHA1;
        EXPECT_EQ(holder.gnutlsCertificateVerifyData(flags, &data, &proof) >= 0, validUntil > 0);
        signature[7] ^= 1;
        return holder.gnutlsCertificateVerifyData(flags, &data, &proof);
    };
    EXPECT_EQ(verify(-60, 60), GNUTLS_E_PK_SIG_VERIFY_FAILED);
    EXPECT_EQ(verify(-60, -30), GNUTLS_E_EXPIRED) << "whatever the signature";
    EXPECT_EQ(thrownBy([&] { verify(60, 90); }),
        "runtime: Error occurred verifying certificate data: Local certificate is not yet activated. Verify that "
        "system time is accurate.");
    EXPECT_EQ(thrownBy([&] { (void)Certificate(m_log.logger()).gnutlsCertificateVerifyData(0, nullptr, nullptr); }),
        "runtime: Internal error occurred verifying certificate data: uninitialized certificate");
}

// Both ends of a GnuTLS session over a pair of sockets; the client trusts nobody, which is not looked at.
TEST_F(CertificateTest, ComeFromSessions)
{
    const Identity leaf({.subject = {{"CN", "7"}}}, &m_authority);
    const std::string chain = m_dir.file("chain", leaf.pem() + m_authority.pem());
    const std::string key = m_dir.file("key", leaf.keyPem());
    int pair[2];
    ASSERT_EQ(::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, pair), 0);
    gnutls_certificate_credentials_t credentials = nullptr;
    gnutls_certificate_allocate_credentials(&credentials);
    gnutls_certificate_set_x509_key_file(credentials, chain.c_str(), key.c_str(), GNUTLS_X509_FMT_PEM);
    gnutls_session_t ends[2];
    for (int i = 0; i < 2; ++i) {
        gnutls_init(&ends[i], i == 0 ? GNUTLS_CLIENT : GNUTLS_SERVER);
        gnutls_set_default_priority(ends[i]);
        gnutls_transport_set_int(ends[i], pair[i]);
        gnutls_credentials_set(ends[i], GNUTLS_CRD_CERTIFICATE, credentials);
    }
    std::thread server([&] { gnutls_handshake(ends[1]); });
    EXPECT_EQ(gnutls_handshake(ends[0]), 0);
    server.join();

    EXPECT_EQ(Certificate(m_log.logger(), Cert::Local, ends[1]).getDeviceId(), 7);
    EXPECT_EQ(Certificate(m_log.logger(), Cert::Peer, ends[0]).getIssuerCertificate()->getName(), "Authority");
    EXPECT_EQ(thrownBy([&] { Certificate(m_log.logger(), Cert::Local, ends[0]); }),
        "runtime: Failed to load local certificate");
    EXPECT_EQ(thrownBy([&] { Certificate(m_log.logger(), Cert::Peer, ends[1]); }),
        "runtime: Failed to verify peer certificate");
    for (auto* const end : ends) gnutls_deinit(end);
    gnutls_certificate_free_credentials(credentials);
    for (const int fd : pair) ::close(fd);
}

TEST_F(CertificateTest, FindsNetscapeComments)
{
    const auto ia5 = [](const std::string& text) { return "\x16" + std::string(1, char(text.size())) + text; };
    const std::string longest(127, 'l');
    const auto with = [&](const std::vector<std::pair<const char*, std::string>>& extensions) {
        return certificate(Identity({.extensions = extensions}, &m_authority).pem());
    };
    using Case = std::tuple<std::string, std::string, bool>;
    for (const auto& [value, comment, isFound] : {
             Case{ia5("abc"), "abc", true}, Case{ia5("abc"), "abcd", false}, Case{ia5(longest), longest, true},
             Case{ia5(longest), longest + std::string(256, 'l'), false}, // the same length in a byte
             Case{"\x0c\x03utf", "utf", false},                          // another type
             Case{"\x16", "", false},                                    // no length
         })
        EXPECT_EQ(with({{"1.2.3.4", ia5("other")}, {kComment, value}}).hasNSComment(comment), isFound) << comment;

    std::vector<std::string> oids(100);
    std::vector<std::pair<const char*, std::string>> many(100, {nullptr, "x"});
    for (std::size_t i = 0; i < 100; ++i) many[i].first = (oids[i] = "1.2.3." + std::to_string(i)).c_str();
    many.emplace_back(kComment, ia5("abc"));
    EXPECT_FALSE(with(many).hasNSComment("abc")) << "the 101st";
    many.erase(many.begin());
    EXPECT_TRUE(with(many).hasNSComment("abc")) << "the 100th";
}
