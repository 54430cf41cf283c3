list(APPEND KAVO_SOURCES layer3/provisional_layer3.cpp)
