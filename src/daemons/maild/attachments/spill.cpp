#include "daemons/maild/attachments/spill.h"

#include <algorithm>

#include "daemons/maild/attachments/names.h"

namespace maild {

namespace {

constexpr std::string_view kExtensions[] = {
    ".zip", ".zipx", ".jar", ".7z",  ".rar", ".tar", ".tgz", ".tbz", ".tbz2", ".txz", ".gz",
    ".bz2", ".xz",   ".zst", ".cab", ".iso", ".img", ".lzh", ".lha", ".lzma", ".z",   ".cpio",
    ".ace", ".arj",  ".ar",  ".xar", ".lz",  ".lz4", ".udf", ".dmg", ".cbz",  ".cbr", ".001"};
constexpr std::string_view kTypes[] = {"zip",  "gzip",  "tar",  "7z-compressed", "rar", "bzip2",
                                       "zstd", "cab-c", "x-xz", "iso9660",       "lzh", "compress"};

}  // namespace

bool CalledArchive(const std::vector<std::string>& names, std::string_view declaredType) {
    const auto named = [](const std::string& name) {
        return std::any_of(std::begin(kExtensions), std::end(kExtensions),
                           [&](std::string_view each) { return name.ends_with(each); });
    };
    return std::any_of(names.begin(), names.end(), named) ||
           (declaredType.starts_with("application/") &&
            std::any_of(std::begin(kTypes), std::end(kTypes), [&](std::string_view each) {
                return declaredType.find(each) != std::string_view::npos;
            }));
}

bool CalledMessage(const std::vector<std::string>& names) {
    return std::any_of(names.begin(), names.end(), [](const std::string& name) {
        return name.ends_with(".eml") || name.ends_with(".mht") || name.ends_with(".mhtml") ||
               name.ends_with(".nws");
    });
}

void Spill::Write(std::string_view bytes) {
    const std::size_t before = type_.Head().size();
    type_.Write(bytes);
    size_ += static_cast<long long>(bytes.size());
    if (file_ != nullptr) {
        file_->Write(bytes);
        return;
    }
    if (!type_.HeadWhole() || before >= RealType::kHead || !Wanted()) return;
    Keep();
    file_->Write(bytes.substr(RealType::kHead - before));
}

void Spill::Keep() {
    file_ = std::make_unique<Scratch>();
    file_->Write(type_.Head());
}

Scratch* Spill::Finish() {
    if (file_ == nullptr && !type_.HeadWhole() && size_ > 0 && Wanted()) Keep();
    return file_.get();
}

bool Spill::SurelyArchive() const {
    if (type_.BeginsArchive() == RealType::Sure::kYes) return true;
    // Called so, and nothing else by its bytes.
    return called_ && size_ > 0 && type_.Types(MagicUse::kNever).empty() &&
           MagicType(type_.Head()) == "application/octet-stream";
}

}  // namespace maild
