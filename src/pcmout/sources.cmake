list(APPEND KAVO_SOURCES pcmout/pcm_output.cpp)
