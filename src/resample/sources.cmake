list(APPEND KAVO_SOURCES
  resample/filter_set.cpp
  resample/filter_tables.cpp
  resample/read_filter_file.cpp
  resample/tap_table.cpp
  resample/resample_engine.cpp
  resample/resample_stages.cpp)
