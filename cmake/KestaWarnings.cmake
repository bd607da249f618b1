# Warnings and floating-point rules shared by every target of the project.
add_library(kesta_options INTERFACE)
if(MSVC)
  target_compile_options(kesta_options INTERFACE /W4 /fp:precise)
  if(KESTADSP_WERROR)
    target_compile_options(kesta_options INTERFACE /WX)
  endif()
else()
  target_compile_options(kesta_options INTERFACE -Wall -Wextra -Wpedantic)
  if(KESTADSP_WERROR)
    target_compile_options(kesta_options INTERFACE -Werror)
  endif()
endif()

# The library's results must not depend on whether the compiler fuses a*b+c: contraction is off
# everywhere; kernels that want FMA ask for it explicitly through intrinsics.
add_library(kesta_numerics INTERFACE)
if(NOT MSVC)
  target_compile_options(kesta_numerics INTERFACE -ffp-contract=off -fno-fast-math)
endif()
