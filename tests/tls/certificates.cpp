#include "tls/certificates.h"

#include <gtest/gtest.h>
#include <openssl/pem.h>
#include <openssl/rsa.h>
#include <openssl/x509v3.h>

#include <atomic>
#include <fstream>

namespace {

std::shared_ptr<EVP_PKEY> NewKey(bool rsa) {
    EVP_PKEY* const key = rsa ? EVP_RSA_gen(2048) : EVP_EC_gen("P-256");
    EXPECT_NE(key, nullptr);
    return {key, EVP_PKEY_free};
}

void Extend(X509* certificate, X509* issuer, int what, const std::string& value) {
    X509V3_CTX context;
    X509V3_set_ctx_nodb(&context);
    X509V3_set_ctx(&context, issuer, certificate, nullptr, nullptr, 0);
    X509_EXTENSION* const extension = X509V3_EXT_conf_nid(nullptr, &context, what, value.c_str());
    ASSERT_NE(extension, nullptr) << value;
    X509_add_ext(certificate, extension, -1);
    X509_EXTENSION_free(extension);
}

void Name(X509* certificate, const std::string& name) {
    X509_NAME_add_entry_by_txt(X509_get_subject_name(certificate), "CN", MBSTRING_ASC,
                               reinterpret_cast<const unsigned char*>(name.c_str()), -1, -1, 0);
}

std::shared_ptr<X509> NewCertificate(EVP_PKEY* key, int fromDays, int toDays) {
    static std::atomic<long> number{1};
    std::shared_ptr<X509> made(X509_new(), X509_free);
    X509_set_version(made.get(), X509_VERSION_3);
    ASN1_INTEGER_set(X509_get_serialNumber(made.get()), number++);
    X509_time_adj_ex(X509_getm_notBefore(made.get()), fromDays, 0, nullptr);
    X509_time_adj_ex(X509_getm_notAfter(made.get()), toDays, 0, nullptr);
    X509_set_pubkey(made.get(), key);
    return made;
}

std::string Text(BIO* bio) {
    char* bytes = nullptr;
    const long length = BIO_get_mem_data(bio, &bytes);
    std::string text(bytes, static_cast<std::size_t>(length));
    BIO_free(bio);
    return text;
}

}  // namespace

Party Party::Authority(const std::string& name) {
    Party made;
    made.key_ = NewKey(false);
    made.certificate_ = NewCertificate(made.key_.get(), -10, 100);
    X509* const certificate = made.certificate_.get();
    Name(certificate, name);
    X509_set_issuer_name(certificate, X509_get_subject_name(certificate));
    Extend(certificate, certificate, NID_basic_constraints, "critical,CA:TRUE");
    EXPECT_GT(X509_sign(certificate, made.key_.get(), EVP_sha256()), 0);
    return made;
}

Party Party::Issue(const Wish& wish) const {
    Party made;
    made.key_ = NewKey(wish.rsa);
    made.certificate_ = NewCertificate(made.key_.get(), wish.fromDays, wish.toDays);
    X509* const certificate = made.certificate_.get();
    Name(certificate, "a server");
    X509_set_issuer_name(certificate, X509_get_subject_name(certificate_.get()));
    Extend(certificate, certificate_.get(), NID_subject_alt_name, wish.names);
    EXPECT_GT(X509_sign(certificate, key_.get(), EVP_sha256()), 0);
    return made;
}

std::string Party::Certificate() const {
    BIO* const bio = BIO_new(BIO_s_mem());
    PEM_write_bio_X509(bio, certificate_.get());
    return Text(bio);
}

std::string Party::Key(const char* passphrase) const {
    BIO* const bio = BIO_new(BIO_s_mem());
    PEM_write_bio_PrivateKey(bio, key_.get(), passphrase != nullptr ? EVP_aes_128_cbc() : nullptr,
                             nullptr, 0, nullptr, const_cast<char*>(passphrase));
    return Text(bio);
}

Files::Files() {
    char name[] = "/tmp/vantrel-tls.XXXXXX";
    path_ = mkdtemp(name);
}

std::string Files::Put(const std::string& name, const std::string& text) const {
    // The system's clock for files moves on in steps; ours has a step a file.
    static std::atomic<int> steps{0};
    const std::string path = Path(name);
    std::ofstream(path) << text;
    std::filesystem::last_write_time(
        path, std::filesystem::file_time_type::clock::now() + std::chrono::seconds(++steps));
    return path;
}
