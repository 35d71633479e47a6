// Inside antivirus/: files of archives that the engine may not unpack, or not all of them, put to
// it in one that it does: tar, several files in each.
#pragma once

#include <string>
#include <string_view>

#include "daemons/maild/antivirus/questions.h"
#include "daemons/maild/coding/scratch.h"

namespace maild {

class Repacked {
  public:
    // `questions` outlive it. `place`: of the part in which the archives are.
    Repacked(Questions& questions, std::string place)
        : questions_(questions), place_(std::move(place)) {}
    Repacked(const Repacked&) = delete;
    Repacked& operator=(const Repacked&) = delete;

    // A file that is open, of so many bytes; an empty one is left out. `front`: what it has in
    // front.
    void Add(int file, long long size, std::string_view front = {});
    // Puts what has been added and not put yet.
    void Finish();

  private:
    Questions& questions_;
    const std::string place_;
    Scratch tar_;
};

}  // namespace maild
