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

bool deflateFile(z_stream& stream, int input, int output) {
  std::unique_ptr<unsigned char[]> in(new unsigned char[kChunk]);
  std::unique_ptr<unsigned char[]> out(new unsigned char[kChunk]);
  int flush = Z_NO_FLUSH;
  while (flush != Z_FINISH) {
    ssize_t got = readChunk(input, in.get());
    if (got < 0) {
      VEK_DIAG(ERROR) << android::base::StringPrintf("%s: Error reading input file.",
                                                     "compressGzip");
      return false;
    }
    stream.next_in = in.get();
    stream.avail_in = static_cast<uInt>(got);
    flush = static_cast<size_t>(got) < kChunk ? Z_FINISH : Z_NO_FLUSH;
    do {
      stream.next_out = out.get();
      stream.avail_out = kChunk;
      int ret = deflate(&stream, flush);
      if (ret != Z_OK && ret != Z_STREAM_END && ret != Z_BUF_ERROR) {
        VEK_DIAG(ERROR) << android::base::StringPrintf("%s: deflate failed with error: %d",
                                                       "compressGzip", ret);
        return false;
      }
      if (!android::base::WriteFully(output, out.get(), kChunk - stream.avail_out)) {
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

bool compressGzip(const std::string& in, const std::string& out) {
  android::base::unique_fd input = openLogDirFile(in, O_RDONLY);
  if (input == -1) {
    VEK_DIAG(ERROR) << android::base::StringPrintf("%s: Failed to open input file: %s",
                                                   "compressGzip", in.c_str());
    return false;
  }
  android::base::unique_fd output = openLogDirFile(out, O_WRONLY | O_CREAT | O_TRUNC, 0640);
  if (output == -1) {
    VEK_DIAG(ERROR) << android::base::StringPrintf("%s: Failed to open outFile file: %s",
                                                   "compressGzip", out.c_str());
    return false;
  }
  z_stream stream{};
  int ret = deflateInit2(&stream, kLevel, Z_DEFLATED, kWindowBitsWithGzipWrapper, kMemLevel,
                         Z_DEFAULT_STRATEGY);
  if (ret != Z_OK) {
    VEK_DIAG(ERROR) << android::base::StringPrintf("%s: deflateInit2 failed with error: %d",
                                                   "compressGzip", ret);
    return false;
  }
  bool compressed = deflateFile(stream, input, output);
  deflateEnd(&stream);
  input.reset();
  return closeArchive(output.release()) && compressed;
}

}  // namespace vek

bool VekLogRecorder::compressGzip(const std::string& in, const std::string& out) {
  return vek::compressGzip(in, out);
}
