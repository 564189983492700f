# bonjour_add_lab_tests(<group>)
# Each pytest test of tests/<group>/ becomes one test of ctest, labelled <group>. The list is made
# when the build is, anew whenever one of the files changes.
function(bonjour_add_lab_tests group)
  set(directory ${PROJECT_SOURCE_DIR}/tests/${group})
  set(list ${PROJECT_BINARY_DIR}/tests/${group}-list.cmake)
  file(GLOB files CONFIGURE_DEPENDS ${directory}/*.py ${PROJECT_SOURCE_DIR}/tests/*.py)
  add_custom_command(
    OUTPUT ${list}
    COMMAND ${BONJOUR_PYTHON} ${PROJECT_SOURCE_DIR}/tests/register.py
      --group ${group}
      --output ${list}
      --bonjour $<TARGET_FILE:bonjour>
      --device $<TARGET_FILE:usblp_device>
      --build ${PROJECT_BINARY_DIR}
    DEPENDS ${files}
    COMMENT "Listing the ${group} tests"
    VERBATIM)
  add_custom_target(${group}_tests ALL DEPENDS ${list})

  set(include ${PROJECT_BINARY_DIR}/tests/${group}-include.cmake)
  file(WRITE ${include}
    "if(EXISTS \"${list}\")
  include(\"${list}\")
else()
  add_test(${group}_tests_NOT_BUILT ${group}_tests_NOT_BUILT)
endif()
")
  set_property(DIRECTORY APPEND PROPERTY TEST_INCLUDE_FILES ${include})
endfunction()
