# bonjour_add_lab_tests(<group>)
# Each pytest test of tests/<group>/ becomes one test of ctest, labelled <group>. The target
# <group>_list makes the list, anew whenever one of the files changes; <group>_tests makes what the
# tests need as well.
function(bonjour_add_lab_tests group)
  set(directory ${PROJECT_SOURCE_DIR}/tests/${group})
  set(list ${PROJECT_BINARY_DIR}/tests/${group}-list.cmake)
  file(GLOB files CONFIGURE_DEPENDS ${directory}/*.py ${PROJECT_SOURCE_DIR}/tests/*.py)
  add_custom_command(
    OUTPUT ${list}
    COMMAND ${CMAKE_COMMAND} -E env
      PYTHONDONTWRITEBYTECODE= PYTHONPYCACHEPREFIX=${PROJECT_BINARY_DIR}/../pycache
      ${BONJOUR_PYTHON} ${PROJECT_SOURCE_DIR}/tests/register.py
      --group ${group}
      --output ${list}
      --build ${PROJECT_BINARY_DIR}
    DEPENDS ${files}
    COMMENT "Listing the ${group} tests"
    VERBATIM)
  add_custom_target(${group}_list ALL DEPENDS ${list})
  add_custom_target(${group}_tests DEPENDS bonjour usblp_device flood fault_shim)
  add_dependencies(${group}_tests ${group}_list)

  set(include ${PROJECT_BINARY_DIR}/tests/${group}-include.cmake)
  file(WRITE ${include}
    "if(EXISTS \"${list}\")
  include(\"${list}\")
else()
  add_test(${group}_tests_NOT_BUILT ${group}_tests_NOT_BUILT)
  set_tests_properties(${group}_tests_NOT_BUILT PROPERTIES LABELS ${group})
endif()
")
  set_property(DIRECTORY APPEND PROPERTY TEST_INCLUDE_FILES ${include})
endfunction()
