#include "daemons/maild/engine/zipfile.h"

#include <zlib.h>

#include <utility>

// The format, all numbers little-endian:
//   for each file:  "PK\3\4" version flags method time date checksum packed size name-length
//                   extra-length name, then the packed bytes
//   directory:      "PK\1\2" made-by version flags method time date checksum packed size
//                   name-length extra comment disk attributes(2) attributes(4) offset name
//   end:            "PK\5\6" disk disk count count directory-size directory-offset comment-length
namespace {

constexpr std::uint16_t kVersion = 20;
constexpr std::uint16_t kDate = 0x21;  // the first day that the format knows
constexpr std::uint16_t kStored = 0;
constexpr std::uint16_t kDeflated = 8;
constexpr std::size_t kMegabyte = 1 << 20;

void Put16(std::string& out, std::uint32_t number) {
    out += static_cast<char>(number & 0xFF);
    out += static_cast<char>(number >> 8 & 0xFF);
}
void Put32(std::string& out, std::uint32_t number) {
    Put16(out, number & 0xFFFF);
    Put16(out, number >> 16);
}

// A run of the deflate format of its own; with Z_FULL_FLUSH others may follow it.
std::string Deflate(std::string_view bytes, int flush) {
    z_stream stream{};
    if (deflateInit2(&stream, Z_BEST_COMPRESSION, Z_DEFLATED, -MAX_WBITS, MAX_MEM_LEVEL,
                     Z_DEFAULT_STRATEGY) != Z_OK)
        return {};
    std::string out(deflateBound(&stream, static_cast<uLong>(bytes.size())) + 16, '\0');
    stream.next_in = reinterpret_cast<Bytef*>(const_cast<char*>(bytes.data()));
    stream.avail_in = static_cast<uInt>(bytes.size());
    stream.next_out = reinterpret_cast<Bytef*>(out.data());
    stream.avail_out = static_cast<uInt>(out.size());
    deflate(&stream, flush);
    out.resize(out.size() - stream.avail_out);
    deflateEnd(&stream);
    return out;
}

std::uint32_t Checksum(std::string_view bytes) {
    return static_cast<std::uint32_t>(
        crc32(0, reinterpret_cast<const Bytef*>(bytes.data()), static_cast<uInt>(bytes.size())));
}
std::uint32_t Joined(std::uint32_t first, std::uint32_t second, std::size_t secondSize) {
    return static_cast<std::uint32_t>(
        crc32_combine(first, second, static_cast<z_off_t>(secondSize)));
}

}  // namespace

void ZipWriter::Put(const Entry& entry) {
    const auto offset = static_cast<std::uint32_t>(out_.size()) + gap_;
    const auto shared = [&](std::string& out) {
        Put16(out, kVersion);
        Put16(out, 0);
        Put16(out, entry.method);
        Put16(out, 0);
        Put16(out, kDate);
        Put32(out, entry.checksum);
        Put32(out, entry.stored);
        Put32(out, entry.size);
        Put16(out, static_cast<std::uint32_t>(entry.name.size()));
        Put16(out, 0);
    };
    out_ += "PK\3\4";
    shared(out_);
    out_ += entry.name;
    out_ += entry.packed;
    gap_ += entry.stored - static_cast<std::uint32_t>(entry.packed.size());
    directory_ += "PK\1\2";
    Put16(directory_, kVersion);
    shared(directory_);
    directory_.append(10, '\0');
    Put32(directory_, offset);
    directory_ += entry.name;
    ++count_;
}

void ZipWriter::Add(std::string_view name, std::string_view bytes) {
    const std::string packed = Deflate(bytes, Z_FINISH);
    Put({name, packed, Checksum(bytes), static_cast<std::uint32_t>(bytes.size()),
         static_cast<std::uint32_t>(packed.size()), kDeflated});
}

void ZipWriter::AddStored(std::string_view name, std::string_view bytes) {
    const auto size = static_cast<std::uint32_t>(bytes.size());
    Put({name, bytes, Checksum(bytes), size, size, kStored});
}

std::string ZipWriter::Finish() {
    const auto offset = static_cast<std::uint32_t>(out_.size()) + gap_;
    const auto size = static_cast<std::uint32_t>(directory_.size());
    out_ += std::exchange(directory_, {});
    out_ += "PK\5\6";
    Put32(out_, 0);
    Put16(out_, count_);
    Put16(out_, std::exchange(count_, std::uint16_t{0}));
    Put32(out_, size);
    Put32(out_, offset);
    Put16(out_, 0);
    gap_ = 0;
    return std::exchange(out_, {});
}

std::string ZipOfHugeZip(std::uint32_t megabytes, std::string_view name, std::string_view bytes) {
    const std::string zeros(kMegabyte, '\0');
    const std::uint32_t ofOne = Checksum(zeros);
    std::uint32_t ofZeros = 0;
    for (std::uint32_t i = 0; i < megabytes; ++i) ofZeros = Joined(ofZeros, ofOne, kMegabyte);
    const auto zerosSize = static_cast<std::uint32_t>(megabytes * kMegabyte);

    // The inner archive, but for the zeros.
    ZipWriter inner;
    inner.Put({"zeros", {}, ofZeros, zerosSize, zerosSize, kStored});
    const std::string head = inner.out_;
    inner.AddStored(name, bytes);
    const std::string tail = inner.Finish().substr(head.size());

    std::string packed = Deflate(head, Z_FULL_FLUSH);
    const std::string one = Deflate(zeros, Z_FULL_FLUSH);
    packed.reserve(packed.size() + one.size() * megabytes + tail.size());
    for (std::uint32_t i = 0; i < megabytes; ++i) packed += one;
    packed += Deflate(tail, Z_FINISH);
    const std::uint32_t checksum =
        Joined(Joined(Checksum(head), ofZeros, zerosSize), Checksum(tail), tail.size());
    ZipWriter outer;
    outer.Put({"inner.zip", packed, checksum,
               static_cast<std::uint32_t>(head.size() + zerosSize + tail.size()),
               static_cast<std::uint32_t>(packed.size()), kDeflated});
    return outer.Finish();
}
