// The keys of an interface that say how it speaks with the rest of the world.
#pragma once

#include <map>
#include <memory>
#include <set>
#include <string>

#include "session/options.h"

// The certificates of the interfaces, each kept from one reading of the table to the next: where
// the new one can't be used, clients go on seeing the old one. One thread.
class InterfaceIdentities {
  public:
    // That of an interface, which goes by what its keys say now; what is wrong with it is told to
    // the logger. Null if it has no certificate.
    std::shared_ptr<TlsIdentity> Find(const std::string& interface);
    // The table has been read whole: what no Find asked for since the last call is forgotten.
    void ForgetOthers();

  private:
    std::map<std::string, std::shared_ptr<TlsIdentity>> kept_;
    std::set<std::string> wanted_;
};

// `interface`: its name below the interfaces' key. What is missing or can't be used has its
// default.
ConnectionOptions ReadConnectionOptions(const std::string& interface,
                                        InterfaceIdentities& identities);
