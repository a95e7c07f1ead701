# The programs of a 32-bit x86 build run on an x86-64 host whose kernel runs 32-bit
# programs. Some kernels (those of some virtual machines) have no IA-32 emulation:
# then the tests run under qemu-i386, the user-mode emulator, which CMake puts in front
# of every test program and of the tests' discovery.
if(CMAKE_CROSSCOMPILING_EMULATOR)
  return()
endif()
set(_fsic_run32_dir ${CMAKE_BINARY_DIR}/CMakeFiles/fsic-run32)
try_compile(_fsic_run32_built ${_fsic_run32_dir} SOURCES ${CMAKE_CURRENT_LIST_DIR}/run32.c
  COPY_FILE ${_fsic_run32_dir}/run32)
if(NOT _fsic_run32_built)
  message(FATAL_ERROR "fsic: cannot build a 32-bit program (gcc-multilib, g++-multilib)")
endif()
execute_process(COMMAND ${_fsic_run32_dir}/run32 RESULT_VARIABLE _fsic_run32_rc
  OUTPUT_QUIET ERROR_QUIET)
if(NOT _fsic_run32_rc EQUAL 0)
  find_program(FSIC_QEMU_I386 qemu-i386)
  if(NOT FSIC_QEMU_I386)
    message(FATAL_ERROR "fsic: this kernel does not run 32-bit programs and qemu-i386 "
                        "(package qemu-user) is not installed")
  endif()
  set(CMAKE_CROSSCOMPILING_EMULATOR ${FSIC_QEMU_I386})
  message(STATUS "fsic: this kernel does not run 32-bit programs: tests run under ${FSIC_QEMU_I386}")
endif()
