# Hardened code generation for everything the project builds, the packaged
# binaries included: position-independent executables, full RELRO with
# immediate binding, stack protector and stack-clash probes, control-flow
# protection where the target has it, and _FORTIFY_SOURCE wherever the code
# is optimised. Sanitizer and fuzzing builds keep all but _FORTIFY_SOURCE,
# whose checked libc calls would hide accesses from the sanitizers'
# interceptors.
include(CheckCXXCompilerFlag)
include(CheckPIESupported)

option(DRAVIK_HARDEN "Build hardened binaries (PIE, RELRO, stack protector, _FORTIFY_SOURCE)" ON)
if(NOT DRAVIK_HARDEN)
  return()
endif()

check_pie_supported(LANGUAGES CXX)
set(CMAKE_POSITION_INDEPENDENT_CODE ON)

add_compile_options(-fstack-protector-strong)
add_link_options(-Wl,-z,relro -Wl,-z,now)

# Flags that only some targets or compilers know; -Werror so that a flag the
# compiler accepts with a warning counts as unsupported.
foreach(flag -fstack-clash-protection -fcf-protection)
  string(MAKE_C_IDENTIFIER "DRAVIK_HAS${flag}" have)
  set(CMAKE_REQUIRED_FLAGS -Werror)
  check_cxx_compiler_flag(${flag} ${have})
  unset(CMAKE_REQUIRED_FLAGS)
  if(${have})
    add_compile_options(${flag})
  endif()
endforeach()

if(NOT DRAVIK_SANITIZE AND NOT DRAVIK_FUZZ)
  # glibc's checks need optimisation (and warn without it, which -Werror
  # would turn into an error). -U first: some compilers define it already.
  add_compile_options("$<$<NOT:$<CONFIG:Debug>>:-U_FORTIFY_SOURCE;-D_FORTIFY_SOURCE=2>")
endif()
