#include "tls/trust.h"

#include <openssl/err.h>
#include <openssl/x509.h>

#include <cstdlib>
#include <map>
#include <mutex>
#include <optional>

#include "platform/file.h"
#include "text/printable.h"
#include "tls/context.h"

namespace {

// One a file that an interface names, and what an administrator tried; beyond it they are made
// anew.
constexpr std::size_t kMostKept = 32;

using State = std::optional<platform::FileState>;
struct Kept {
    State file;
    State directory;  // of the system's store
    std::shared_ptr<const TlsContext> context;
};

std::string FromEnvironment(const char* variable, const char* otherwise) {
    const char* const value = std::getenv(variable);
    return value != nullptr ? value : otherwise;
}

// What is looked at stands before what is read: a change in between is seen by the next look.
Kept Look(const std::string& caFile) {
    if (!caFile.empty()) return {platform::LookAtFile(caFile), {}, nullptr};
    return {platform::LookAtFile(
                FromEnvironment(X509_get_default_cert_file_env(), X509_get_default_cert_file())),
            platform::LookAtFile(
                FromEnvironment(X509_get_default_cert_dir_env(), X509_get_default_cert_dir())),
            nullptr};
}

std::shared_ptr<const TlsContext> MakeContext() {
    OwnedSslContext context = NewSslContext(TLS_client_method());
    if (context == nullptr) return nullptr;
    // Nothing is kept for the next connection, so nothing has to be sent for it.
    SSL_CTX_set_options(context.get(), SSL_OP_NO_TICKET);
    return std::make_shared<TlsContext>(std::move(context));
}

std::shared_ptr<const TlsContext> Load(const std::string& caFile, std::string& complaint) {
    auto context = MakeContext();
    if (context == nullptr) {
        complaint = TakeOpensslReason();
        return nullptr;
    }
    const int loaded = caFile.empty() ? SSL_CTX_set_default_verify_paths(context->Get())
                                      : SSL_CTX_load_verify_file(context->Get(), caFile.c_str());
    if (loaded == 1) return context;
    complaint = (caFile.empty() ? "the system's authorities" : CleanText(caFile)) + ": " +
                TakeOpensslReason();
    return nullptr;
}

}  // namespace

std::shared_ptr<const TlsContext> TlsClientContext(const std::string& caFile,
                                                   std::string& complaint) {
    static std::mutex mutex;
    static std::map<std::string, Kept>& kept = *new std::map<std::string, Kept>;  // late threads
    complaint.clear();
    const std::lock_guard lock(mutex);
    Kept now = Look(caFile);
    if (!caFile.empty() && now.file && !now.file->plain) {
        complaint = CleanText(caFile) + ": not a plain file";
        return nullptr;
    }
    const auto before = kept.find(caFile);
    if (before != kept.end() && before->second.file == now.file &&
        before->second.directory == now.directory)
        return before->second.context;
    now.context = Load(caFile, complaint);
    ERR_clear_error();
    if (now.context == nullptr) {
        kept.erase(caFile);
        return nullptr;
    }
    if (kept.size() >= kMostKept) kept.clear();
    return (kept[caFile] = std::move(now)).context;
}

std::shared_ptr<const TlsContext> TlsClientContext() {
    static std::mutex mutex;
    static std::shared_ptr<const TlsContext>& made = *new std::shared_ptr<const TlsContext>;
    const std::lock_guard lock(mutex);
    if (made == nullptr) made = MakeContext();
    ERR_clear_error();
    return made;
}
