# libebur128 is the loudness tests' second opinion and the loudness benchmark's anchor; it is never
# linked into the library. kesta_use_ebur128(<target>) links it where it is installed and defines
# KESTA_HAVE_EBUR128 as 1 or 0 for the sources to skip what needs it.
find_package(PkgConfig REQUIRED)
pkg_check_modules(EBUR128 QUIET IMPORTED_TARGET libebur128)

function(kesta_use_ebur128 target)
  if(EBUR128_FOUND)
    target_link_libraries(${target} PRIVATE PkgConfig::EBUR128)
    target_compile_definitions(${target} PRIVATE KESTA_HAVE_EBUR128=1)
  else()
    target_compile_definitions(${target} PRIVATE KESTA_HAVE_EBUR128=0)
  endif()
endfunction()
