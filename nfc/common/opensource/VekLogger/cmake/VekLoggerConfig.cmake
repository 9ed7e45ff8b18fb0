# find_package(VekLogger) gives the imported target VekLogger::vek_log_record.
include("${CMAKE_CURRENT_LIST_DIR}/VekLoggerTargets.cmake")
