# Compiler settings shared by every target of the tree.
add_library(vekx_options INTERFACE)
target_compile_features(vekx_options INTERFACE cxx_std_20)

if(CMAKE_CXX_COMPILER_ID MATCHES "GNU|Clang")
  # C++ only: the Windows DLL also compiles a resource script, and windres takes none of these.
  set(warnings -Wall -Wextra -Wshadow -Wnon-virtual-dtor -Woverloaded-virtual
               -Wimplicit-fallthrough -Wno-missing-field-initializers)
  # GCC 12 at -O2 warns of overlapping copies inside libstdc++'s own string concatenation
  # ("accessing 9223372036854775810 or more bytes"): its known false alarm, GCC bug 105329.
  if(CMAKE_CXX_COMPILER_ID STREQUAL "GNU" AND CMAKE_CXX_COMPILER_VERSION VERSION_LESS 13)
    list(APPEND warnings -Wno-restrict)
  endif()
  target_compile_options(vekx_options INTERFACE "$<$<COMPILE_LANGUAGE:CXX>:${warnings}>")
  if(VEKX_WERROR)
    target_compile_options(vekx_options INTERFACE $<$<COMPILE_LANGUAGE:CXX>:-Werror>)
  endif()
endif()

if(VEKX_SANITIZE)
  target_compile_options(vekx_options INTERFACE -fsanitize=${VEKX_SANITIZE} -fno-omit-frame-pointer
                                                -fno-sanitize-recover=all)
  target_link_options(vekx_options INTERFACE -fsanitize=${VEKX_SANITIZE})
endif()

# Coverage for libFuzzer in the code the fuzzers drive (the library's core, the server's, the GDB
# protocol's), linked privately by those three; the fuzz targets add the driver. The tests, tools
# and benchmarks that link the same objects compile without it, which halves their build time.
add_library(vekx_fuzz_coverage INTERFACE)
if(VEKX_BUILD_FUZZ)
  target_compile_options(vekx_fuzz_coverage INTERFACE -fsanitize=fuzzer-no-link)
endif()

if(WIN32)
  # Windows 7 API level, UTF-16 Win32 calls, and no min/max macros in our way.
  target_compile_definitions(vekx_options INTERFACE _WIN32_WINNT=0x0601 UNICODE _UNICODE NOMINMAX
                                                    WIN32_LEAN_AND_MEAN)
  # The catalogue's translation units hold more sections than a plain COFF object allows.
  target_compile_options(vekx_options INTERFACE $<$<COMPILE_LANGUAGE:CXX>:-Wa,-mbig-obj>)
  # Test and tool executables carry their own runtime so that Wine needs no MinGW DLLs.
  set(VEKX_STATIC_RUNTIME_FLAGS -static -static-libgcc -static-libstdc++)
endif()
