find_program(CCACHE_PROGRAM ccache)
if(CCACHE_PROGRAM)
  # Paths below the source tree hash as relative ones, so fresh clones elsewhere hit the cache.
  set(launcher ${CMAKE_COMMAND} -E env CCACHE_BASEDIR=${PROJECT_SOURCE_DIR} CCACHE_NOHASHDIR=1 ${CCACHE_PROGRAM})
  set(CMAKE_CXX_COMPILER_LAUNCHER ${launcher})
  set(CMAKE_C_COMPILER_LAUNCHER ${launcher})
endif()
