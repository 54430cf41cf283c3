list(APPEND KAVO_SOURCES entry/kavo.cpp)
