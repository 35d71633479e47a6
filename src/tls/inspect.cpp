#include "tls/inspect.h"

#include <openssl/err.h>
#include <openssl/x509.h>

#include "tls/context.h"

TlsInspection InspectIdentity(const TlsIdentitySettings& settings) {
    TlsInspection found;
    TlsIdentity identity;
    identity.Configure(settings);
    const std::shared_ptr<const TlsContext> context = identity.Context(found.complaint);
    if (context == nullptr) return found;
    found.complaint.clear();  // it is that it has expired, which the days tell
    int days = 0;
    int seconds = 0;
    const X509* const certificate = SSL_CTX_get0_certificate(context->Get());
    if (ASN1_TIME_diff(&days, &seconds, nullptr, X509_get0_notAfter(certificate)) == 1)
        found.daysLeft = seconds < 0 || days < 0 ? -1 : days;
    ERR_clear_error();
    return found;
}
