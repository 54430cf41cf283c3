list(APPEND KAVO_SOURCES engine/gapless.cpp engine/stream_scan.cpp engine/conversion.cpp
  engine/kavo_api.cpp engine/output_target.cpp engine/speech_level.cpp)
