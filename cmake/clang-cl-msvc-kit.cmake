# Cross-compiling for 64-bit Windows in the MSVC ABI on Linux: clang-cl and
# lld-link with the msvc-kit (Microsoft's STL headers, Wine's Windows headers,
# a stand-in for the static part of the /MD runtime). Programs run under Wine
# on its builtin msvcp140.dll, vcruntime140.dll and ucrtbase.dll.
#
# The kit: MSVC_KIT (CMake or environment variable), else ../shared/msvc-kit
# beside the project. Its prepared toolchain: MSVC_KIT_OUT, else
# ~/.cache/msvc-kit, made by the kit's setup.sh (scripts/test runs it).
set(CMAKE_SYSTEM_NAME Windows)
set(CMAKE_SYSTEM_PROCESSOR AMD64)

if(NOT MSVC_KIT)
  if(DEFINED ENV{MSVC_KIT})
    set(MSVC_KIT "$ENV{MSVC_KIT}")
  else()
    get_filename_component(MSVC_KIT "${CMAKE_CURRENT_LIST_DIR}/../../shared/msvc-kit" ABSOLUTE)
  endif()
endif()
if(NOT MSVC_KIT_OUT)
  if(DEFINED ENV{MSVC_KIT_OUT})
    set(MSVC_KIT_OUT "$ENV{MSVC_KIT_OUT}")
  else()
    set(MSVC_KIT_OUT "$ENV{HOME}/.cache/msvc-kit")
  endif()
endif()
# try_compile runs this file again in a project of its own.
set(CMAKE_TRY_COMPILE_PLATFORM_VARIABLES MSVC_KIT MSVC_KIT_OUT)

if(NOT EXISTS "${MSVC_KIT_OUT}/env.sh")
  message(FATAL_ERROR "msvc-kit: ${MSVC_KIT_OUT}/env.sh is missing; run ${MSVC_KIT}/setup.sh ${MSVC_KIT_OUT} first")
endif()
file(STRINGS "${MSVC_KIT_OUT}/env.sh" kit_flags_line REGEX "^MSVC_KIT_CXXFLAGS=")
string(REGEX REPLACE "^MSVC_KIT_CXXFLAGS=\"(.*)\"$" "\\1" kit_cxx_flags "${kit_flags_line}")
# Two macros the kit's runtime headers lack (see the header).
string(APPEND kit_cxx_flags " /FI${CMAKE_CURRENT_LIST_DIR}/msvc-kit-gaps.h")
# The C compile takes the same flags but the language standard.
string(REPLACE "/std:c++17" "" kit_c_flags "${kit_cxx_flags}")

set(CMAKE_C_COMPILER "${MSVC_KIT_OUT}/bin/clang-cl")
set(CMAKE_CXX_COMPILER "${MSVC_KIT_OUT}/bin/clang-cl")
set(CMAKE_LINKER /usr/lib/llvm-16/bin/lld-link)
set(CMAKE_AR /usr/lib/llvm-16/bin/llvm-lib)
set(CMAKE_RC_COMPILER /usr/lib/llvm-16/bin/llvm-rc)
set(CMAKE_MT /usr/lib/llvm-16/bin/llvm-mt)
set(CMAKE_DLLTOOL /usr/lib/llvm-16/bin/llvm-dlltool)
set(CMAKE_MSVC_RUNTIME_LIBRARY MultiThreadedDLL)

set(CMAKE_C_FLAGS_INIT "${kit_c_flags}")
set(CMAKE_CXX_FLAGS_INIT "${kit_cxx_flags}")
set(kit_link "/nodefaultlib /libpath:${MSVC_KIT_OUT}/lib")
set(CMAKE_EXE_LINKER_FLAGS_INIT "${kit_link} /entry:mainCRTStartup ${MSVC_KIT_OUT}/lib/crt_shim_exe.obj")
set(CMAKE_SHARED_LINKER_FLAGS_INIT "${kit_link} ${MSVC_KIT_OUT}/lib/crt_shim_dll.obj")
set(CMAKE_MODULE_LINKER_FLAGS_INIT "${kit_link} ${MSVC_KIT_OUT}/lib/crt_shim_dll.obj")
foreach(lang C CXX)
  set(CMAKE_${lang}_STANDARD_LIBRARIES
      "vcruntime140.lib ucrtbase.lib msvcp140.lib kernel32.lib user32.lib advapi32.lib" CACHE STRING "" FORCE)
endforeach()

set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE BOTH)

# Programs run under Wine through this wrapper (ctest, add_test, custom commands).
set(CMAKE_CROSSCOMPILING_EMULATOR ${CMAKE_CURRENT_LIST_DIR}/../scripts/wine-exec)
