list(APPEND KAVO_SOURCES simd/vector_path.cpp)
