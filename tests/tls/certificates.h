// Keys and certificates, made when a test wants them.
#pragma once

#include <openssl/evp.h>
#include <openssl/x509.h>

#include <filesystem>
#include <memory>
#include <string>

// What a certificate shall say.
struct Wish {
    std::string names = "DNS:mail.test";  // as the library writes alternative names
    int fromDays = -1;
    int toDays = 30;
    bool rsa = false;
};

// A certificate and the key to it.
class Party {
  public:
    static Party Authority(const std::string& name);
    Party Issue(const Wish& wish = {}) const;

    std::string Certificate() const;  // PEM
    std::string Key(const char* passphrase = nullptr) const;
    std::string Both() const { return Certificate() + Key(); }

  private:
    std::shared_ptr<X509> certificate_;
    std::shared_ptr<EVP_PKEY> key_;
};

// A directory for the time of a test.
class Files {
  public:
    Files();
    Files(const Files&) = delete;
    Files& operator=(const Files&) = delete;
    ~Files() { std::filesystem::remove_all(path_); }

    std::string Path(const std::string& name) const { return path_ + "/" + name; }
    // The path. Never of the same state as before.
    std::string Put(const std::string& name, const std::string& text) const;

  private:
    std::string path_;
};
