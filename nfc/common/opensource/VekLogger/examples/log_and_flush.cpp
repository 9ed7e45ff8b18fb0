// A process of the NFC stack: attach once at start-up, log both ways, flush before a risky step.
#include <VekLogger.h>

int main() {
  // Names the process; this picks its log file (here /data/vendor/nfc/nfc_process.veklog).
  VekLogRecorder::getInstance()->attchProcess("nfc_process");

  // printf style: the tag, then the format and its arguments.
  __vek_log_i("NfcService", "Discovery started, mode %d", 2);
  __vek_log_e("NfcService", "Tag lost after %d ms", 40);

  // Stream style: the line carries this file and line number.
  VEK_LOG(WARNING) << "RF field off while polling";

  // Hands the buffered lines to the writer and waits up to 2 s until they are on storage.
  return __vek_save_log_now() ? 0 : 1;
}
