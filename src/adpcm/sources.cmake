list(APPEND KAVO_SOURCES adpcm/adpcm_core.cpp adpcm/adpcm_output.cpp adpcm/adpcm_expand.cpp)
