// A HAL's dump() hands the library's own state to a bug report: `adb bugreport` collects every
// HAL's dump (AIDL dump(fd, args), `lshal debug` for HIDL), and it is where engineers look first
// when lines are missing from a pulled log.
#include <VekLogger.h>
#include <unistd.h>

// As an AIDL service's dump(int fd, const char** args, uint32_t numArgs) would do it.
static int dump(int fd) {
  static const char kTitle[] = "NFC HAL\n";
  if (write(fd, kTitle, sizeof(kTitle) - 1) < 0) return -1;
  __vek_dump_state(fd);  // never waits for the writer, whatever it is doing
  return 0;
}

int main() {
  VekLogRecorder::getInstance()->attchProcess("nfc_hal_process");
  __vek_log_i("NfcHal", "core initialized");
  __vek_save_log_now();
  return dump(STDOUT_FILENO);
}
