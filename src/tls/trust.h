// By what the certificate of a server is judged.
#pragma once

#include <memory>
#include <string>

class TlsContext;

// caFile: PEM file with the authorities; empty: the system's store. A file that hasn't changed is
// not read again. Null if it can't be used, with the reason in complaint.
std::shared_ptr<const TlsContext> TlsClientContext(const std::string& caFile,
                                                   std::string& complaint);
// For a server whose certificate is not judged. Null without memory.
std::shared_ptr<const TlsContext> TlsClientContext();
