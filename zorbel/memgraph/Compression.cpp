#include "memgraph/Compression.h"

#define ZLIB_CONST
#include <zlib.h>
#include <zstd.h>

#include <algorithm>
#include <memory>
#include <vector>

namespace zorbel {

namespace {

using Consumer = std::function<bool(std::string_view)>;
using Problem = std::optional<std::string>;

constexpr std::string_view kGzipMagic = "\x1F\x8B";
constexpr std::string_view kZstandardMagic = "\x28\xB5\x2F\xFD";
constexpr std::size_t kPieceSize = 1 << 16;
const char* const kCutOff = "the compressed data ends too early";

Problem inflateGzip(std::string_view contents, const Consumer& consume) {
    constexpr int kGzipOnly = 16 + MAX_WBITS;
    z_stream stream{};
    if (inflateInit2(&stream, kGzipOnly) != Z_OK) return "out of memory while decompressing";
    const std::unique_ptr<z_stream, int (*)(z_stream*)> end(&stream, &inflateEnd);
    std::vector<char> piece(kPieceSize);
    stream.next_in = reinterpret_cast<const Bytef*>(contents.data());
    stream.avail_in = static_cast<uInt>(contents.size());  // Callers read at most 512 MiB.
    for (;;) {
        stream.next_out = reinterpret_cast<Bytef*>(piece.data());
        stream.avail_out = kPieceSize;
        const int result = inflate(&stream, Z_NO_FLUSH);
        if (result == Z_BUF_ERROR) return kCutOff;
        if (result != Z_OK && result != Z_STREAM_END)
            return "the compressed data is damaged: " + std::string(stream.msg ? stream.msg : zError(result));
        if (!consume({piece.data(), kPieceSize - stream.avail_out})) return std::nullopt;
        if (result == Z_OK) continue;
        // Several gzip streams may follow each other, and a copy by blocks may end with zeros.
        if (std::all_of(stream.next_in, stream.next_in + stream.avail_in,
                        [](Bytef byte) { return byte == 0; }))
            return std::nullopt;
        inflateReset(&stream);
    }
}

Problem decompressZstandard(std::string_view contents, const Consumer& consume) {
    const std::unique_ptr<ZSTD_DStream, std::size_t (*)(ZSTD_DStream*)> stream(ZSTD_createDStream(),
                                                                               &ZSTD_freeDStream);
    if (!stream) return "out of memory while decompressing";
    std::vector<char> piece(kPieceSize);
    ZSTD_inBuffer input{contents.data(), contents.size(), 0};
    for (;;) {
        ZSTD_outBuffer output{piece.data(), piece.size(), 0};
        const std::size_t missing = ZSTD_decompressStream(stream.get(), &output, &input);
        if (ZSTD_isError(missing) != 0)
            return "the compressed data is damaged: " + std::string(ZSTD_getErrorName(missing));
        if (!consume({piece.data(), output.pos})) return std::nullopt;
        if (input.pos < input.size || output.pos == output.size) continue;
        if (missing == 0) return std::nullopt;
        return kCutOff;
    }
}

Problem takeAsItStands(std::string_view contents, const Consumer& consume) {
    while (!contents.empty()) {
        const std::size_t size = std::min(contents.size(), kPieceSize);
        if (!consume(contents.substr(0, size))) break;
        contents.remove_prefix(size);
    }
    return std::nullopt;
}

}  // namespace

Problem forEachPiece(std::string_view contents, const Consumer& consume) {
    const auto take = contents.starts_with(kGzipMagic)        ? inflateGzip
                      : contents.starts_with(kZstandardMagic) ? decompressZstandard
                                                              : takeAsItStands;
    std::uint64_t size = 0;
    Problem problem = take(contents, [&](std::string_view piece) {
        size += piece.size();
        return size <= kMostText && consume(piece);
    });
    if (size > kMostText) return "its text is larger than 512 MiB";
    return problem;
}

}  // namespace zorbel
