list(APPEND KAVO_SOURCES entry/kavo.cpp entry/decode_loop.cpp entry/conversion_stages.cpp
  entry/codec_command.cpp)
