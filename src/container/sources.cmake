list(APPEND KAVO_SOURCES
  container/riff.cpp
  container/tags.cpp
  container/wav.cpp
  container/input_layout.cpp)
