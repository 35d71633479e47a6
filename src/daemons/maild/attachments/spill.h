// Inside attachments/: a file as its bytes go by. What may be an archive is kept in a file without
// a name, what can't be one is only looked at.
#pragma once

#include <memory>
#include <string_view>

#include "daemons/maild/attachments/realtype.h"
#include "daemons/maild/coding/scratch.h"

namespace maild {

class Spill {
  public:
    // `called`: it is an archive by its name or declared type. `kept`: it is kept, whatever it is.
    explicit Spill(bool called, bool kept = false) : called_(called), kept_(kept) {}

    void Write(std::string_view bytes);
    // Behind the last byte. Null: it can't be an archive, or is empty. One that can't be written
    // has a descriptor of -1.
    Scratch* Finish();

    const RealType& Type() const { return type_; }
    // Whether it must be readable as an archive.
    bool SurelyArchive() const;
    bool Called() const { return called_; }
    bool MayBeArchive() const { return called_ || type_.MayBeArchive(); }
    long long Size() const { return size_; }

  private:
    bool Wanted() const { return kept_ || MayBeArchive(); }
    void Keep();

    const bool called_;
    const bool kept_;
    RealType type_;
    std::unique_ptr<Scratch> file_;
    long long size_ = 0;
};

// Whether readers would open what is called so as an archive. The names are as ReadingsOfName gives
// them.
bool CalledArchive(const std::vector<std::string>& names, std::string_view declaredType);
// Whether mail programs would open it as they open what is forwarded.
bool CalledMessage(const std::vector<std::string>& names);

}  // namespace maild
