list(APPEND KAVO_SOURCES
  layer3/granule_decoder.cpp
  layer3/side_info.cpp
  layer3/scale_factors.cpp
  layer3/huffman.cpp
  layer3/requantise.cpp
  layer3/stereo.cpp
  layer3/hybrid.cpp
  layer3/synthesis.cpp
  layer3/huffman_tables.cpp
  layer3/synthesis_window.cpp
  layer3/layer3_tables.cpp)
