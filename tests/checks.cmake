# Checks of the source tree and of what was built, as CTest entries with the label "check". They run
# once, in the release build.
if(KOUTIL_SANITIZE)
  return()
endif()

set(checks ${PROJECT_SOURCE_DIR}/scripts/checks)
function(koutil_check name)
  if(NOT EXISTS ${ARGV1})
    return()
  endif()
  add_test(NAME check_${name} COMMAND ${ARGN})
  set_tests_properties(check_${name} PROPERTIES LABELS check TIMEOUT 600)
endfunction()

koutil_check(headers ${checks}/headers ${CMAKE_C_COMPILER} ${CMAKE_CXX_COMPILER})
koutil_check(exports ${checks}/exports $<TARGET_FILE:koutil>)
koutil_check(tiers ${checks}/tiers)
koutil_check(comments ${checks}/comments)
koutil_check(format ${checks}/format)
koutil_check(constructors ${checks}/constructors $<TARGET_FILE:koutil_static>)
koutil_check(docs ${PROJECT_SOURCE_DIR}/scripts/docs ${PROJECT_BINARY_DIR}/docs)
koutil_check(guide ${checks}/guide ${PROJECT_BINARY_DIR})
koutil_check(install ${checks}/install ${PROJECT_BINARY_DIR})
