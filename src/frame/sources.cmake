list(APPEND KAVO_SOURCES frame/bitstream.cpp)
