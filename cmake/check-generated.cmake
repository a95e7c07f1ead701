# Checks that a generated file kept in the source tree is exactly what its generator
# writes now: runs the generator (a Python script that writes to standard output) into
# a file of the build tree and compares the two byte for byte.
#
#   cmake -DPYTHON=<python3> -DGENERATOR=<script.py> -DEXPECTED=<file in the tree>
#         -DOUTPUT=<file in the build tree> -P check-generated.cmake
foreach(var PYTHON GENERATOR EXPECTED OUTPUT)
  if(NOT DEFINED ${var})
    message(FATAL_ERROR "check-generated: -D${var}=... is required")
  endif()
endforeach()

execute_process(COMMAND ${PYTHON} ${GENERATOR}
  OUTPUT_FILE ${OUTPUT}
  ERROR_VARIABLE errors
  RESULT_VARIABLE status)
if(NOT status EQUAL 0)
  message(FATAL_ERROR "check-generated: ${GENERATOR} failed (${status}):\n${errors}")
endif()

execute_process(COMMAND ${CMAKE_COMMAND} -E compare_files ${EXPECTED} ${OUTPUT}
  RESULT_VARIABLE differ)
if(NOT differ EQUAL 0)
  # A diff, where there is the program, to show what changed.
  find_program(diff_program diff)
  if(diff_program)
    execute_process(COMMAND ${diff_program} -u ${EXPECTED} ${OUTPUT})
  endif()
  message(FATAL_ERROR "check-generated: ${EXPECTED} is not what ${GENERATOR} writes "
                      "(that is ${OUTPUT}); rerun the generator, or fix the one that changed")
endif()
message(STATUS "check-generated: ${EXPECTED} is what ${GENERATOR} writes")
