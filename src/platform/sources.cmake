list(APPEND KAVO_SOURCES platform/platform.cpp platform/report_message.cpp)
