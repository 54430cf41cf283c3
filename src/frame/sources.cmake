list(APPEND KAVO_SOURCES
  frame/bitstream.cpp
  frame/frame_header.cpp
  frame/frame_sync.cpp)
