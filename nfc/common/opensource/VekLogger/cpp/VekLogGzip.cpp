// Gzip compression of a log file into an archive, in one streaming pass of 1 MiB chunks.
#include <android-base/file.h>
#include <android-base/unique_fd.h>
#include <fcntl.h>
#include <unistd.h>
#include <zlib.h>

#include <memory>

#include "VekLogDiag.h"
#include "VekLogStorage.h"
#include "VekLogger.h"

namespace vek {
namespace {

constexpr size_t kChunk = size_t{1} << 20;
constexpr int kLevel = 9;
constexpr int kWindowBitsWithGzipWrapper = 15 + 16;
constexpr int kMemLevel = 8;
// An archive is checked in chunks of this size, up to text of kMostText bytes.
constexpr size_t kCheckChunk = size_t{64} << 10;
constexpr uint64_t kMostText = uint64_t{256} << 20;

// Fills chunk up to kChunk bytes; fewer means the end of the file was reached. -1 on error.
ssize_t readChunk(int fd, unsigned char* chunk) {
  size_t filled = 0;
  while (filled < kChunk) {
    ssize_t got = TEMP_FAILURE_RETRY(read(fd, chunk + filled, kChunk - filled));
    if (got < 0) return -1;
    if (got == 0) break;
    filled += static_cast<size_t>(got);
  }
  return static_cast<ssize_t>(filled);
}

// The deflate state and both chunks, made for one archive and freed with it: an idle process
// keeps none of the 2.3 MiB.
struct Compressor {
  ~Compressor() {
    if (mReady) deflateEnd(&mStream);
  }
  // The stream, or null when zlib cannot set it up.
  z_stream* stream() {
    int ret = deflateInit2(&mStream, kLevel, Z_DEFLATED, kWindowBitsWithGzipWrapper, kMemLevel,
                           Z_DEFAULT_STRATEGY);
    if (ret != Z_OK) {
      VEK_DIAG(ERROR) << android::base::StringPrintf("%s: deflateInit2 failed with error: %d",
                                                     "compressGzip", ret);
      return nullptr;
    }
    mReady = true;
    return &mStream;
  }

  z_stream mStream{};
  bool mReady = false;
  std::unique_ptr<unsigned char[]> mIn{new unsigned char[kChunk]};
  std::unique_ptr<unsigned char[]> mOut{new unsigned char[kChunk]};
};

bool deflateFile(z_stream& stream, int input, int output, unsigned char* in, unsigned char* out) {
  int flush = Z_NO_FLUSH;
  while (flush != Z_FINISH) {
    ssize_t got = readChunk(input, in);
    if (got < 0) {
      VEK_DIAG(ERROR) << android::base::StringPrintf("%s: Error reading input file.",
                                                     "compressGzip");
      return false;
    }
    stream.next_in = in;
    stream.avail_in = static_cast<uInt>(got);
    flush = static_cast<size_t>(got) < kChunk ? Z_FINISH : Z_NO_FLUSH;
    do {
      stream.next_out = out;
      stream.avail_out = kChunk;
      int ret = deflate(&stream, flush);
      if (ret != Z_OK && ret != Z_STREAM_END && ret != Z_BUF_ERROR) {
        VEK_DIAG(ERROR) << android::base::StringPrintf("%s: deflate failed with error: %d",
                                                       "compressGzip", ret);
        return false;
      }
      if (!android::base::WriteFully(output, out, kChunk - stream.avail_out)) {
        VEK_DIAG(ERROR) << android::base::StringPrintf("%s: Failed to write to output file.",
                                                       "compressGzip");
        return false;
      }
    } while (stream.avail_out == 0);
  }
  return true;
}

// The log file is removed once its archive is made, so the archive must be on storage first.
bool closeArchive(int fd) {
  bool synced = fsync(fd) == 0;
  bool closed = close(fd) == 0;
  if (synced && closed) return true;
  VEK_DIAG(ERROR) << android::base::StringPrintf("%s: Failed to close output file.",
                                                 "compressGzip");
  return false;
}

}  // namespace

android::base::unique_fd openGzipOutput(const std::string& out, const std::string& archive) {
  android::base::unique_fd output = openLogDirFile(out, O_WRONLY | O_CREAT | O_TRUNC, 0640);
  if (output == -1) {
    VEK_DIAG(ERROR) << android::base::StringPrintf("%s: Failed to open outFile file: %s",
                                                   "compressGzip", archive.c_str());
  }
  return output;
}

bool writeGzip(int input, android::base::unique_fd output) {
  Compressor compressor;
  z_stream* stream = compressor.stream();
  if (stream == nullptr) return false;
  bool compressed =
      deflateFile(*stream, input, output, compressor.mIn.get(), compressor.mOut.get());
  return closeArchive(output.release()) && compressed;
}

bool isWholeArchive(const std::string& path, uint64_t size) {
  // Larger than any log file: not this library's, and not to be read through.
  if (size > kMostText) return false;
  android::base::unique_fd input = openLogDirFile(path, O_RDONLY);
  z_stream stream{};
  if (input == -1 || inflateInit2(&stream, kWindowBitsWithGzipWrapper) != Z_OK) return false;
  std::unique_ptr<unsigned char[]> in(new unsigned char[kCheckChunk]);
  std::unique_ptr<unsigned char[]> out(new unsigned char[kCheckChunk]);
  int ret = Z_OK;
  while (ret == Z_OK && stream.total_out <= size + kCheckChunk) {
    if (stream.avail_in == 0) {
      ssize_t got = TEMP_FAILURE_RETRY(read(input, in.get(), kCheckChunk));
      if (got <= 0) break;
      stream.next_in = in.get();
      stream.avail_in = static_cast<uInt>(got);
    }
    stream.next_out = out.get();
    stream.avail_out = kCheckChunk;
    ret = inflate(&stream, Z_NO_FLUSH);
  }
  bool whole = ret == Z_STREAM_END && stream.total_out >= size;
  inflateEnd(&stream);
  return whole;
}

bool compressGzip(const std::string& in, const std::string& out) {
  android::base::unique_fd input = openLogDirFile(in, O_RDONLY);
  if (input == -1) {
    VEK_DIAG(ERROR) << android::base::StringPrintf("%s: Failed to open input file: %s",
                                                   "compressGzip", in.c_str());
    return false;
  }
  android::base::unique_fd output = openGzipOutput(out, out);
  return output != -1 && writeGzip(input, std::move(output));
}

}  // namespace vek

bool VekLogRecorder::compressGzip(const std::string& in, const std::string& out) {
  return vek::compressGzip(in, out);
}
