# The two kinds of targets: kernel modules, and programs that load them.

# The interfaces that modules and their host share.
add_library(ats_interfaces INTERFACE)
target_include_directories(ats_interfaces INTERFACE ${PROJECT_SOURCE_DIR}/include ${PROJECT_SOURCE_DIR}/ib-code/include)

# All hosts in a process share the code of a module (host/kernel/image-area.h). For this, a module's variables must lie 4 MiB
# further behind its code than usual (data_distance in host/kernel/image-template.h). This function adds that distance to the
# linker's own script. Only builds for x86-64 without sanitizers, coverage and edges use the script. Without the script, the
# dynamic linker maps a copy of the module for each host.
function(make_module_linker_script)
  set(MODULE_LINKER_SCRIPT "" PARENT_SCOPE)
  if(NOT CMAKE_SYSTEM_PROCESSOR MATCHES "x86_64|AMD64" OR ATS_SANITIZE OR ATS_COVERAGE OR ATS_EDGES)
    return()
  endif()
  execute_process(
    COMMAND ${CMAKE_CXX_COMPILER} -shared -Wl,-z,relro,-z,now -Wl,--verbose -o ${CMAKE_BINARY_DIR}/empty-module.so
    OUTPUT_VARIABLE linker_text ERROR_QUIET)
  if(NOT linker_text MATCHES "=====+\n(.*  \\. = DATA_SEGMENT_ALIGN .*)\n=====+")
    message(STATUS "This linker shows no script: machines will not share the code of modules")
    return()
  endif()
  string(REPLACE "  . = DATA_SEGMENT_ALIGN " "  . = . + 0x400000;\n  . = DATA_SEGMENT_ALIGN " script "${CMAKE_MATCH_1}")
  file(CONFIGURE OUTPUT ${CMAKE_BINARY_DIR}/module.ld CONTENT "${script}" @ONLY)
  set(MODULE_LINKER_SCRIPT ${CMAKE_BINARY_DIR}/module.ld PARENT_SCOPE)
endfunction()
make_module_linker_script()

# A module is a shared object, and its undefined symbols are kernel calls. With -Bsymbolic, the module's own code reads an
# exported variable with a single load.
function(add_kernel_module name)
  add_library(${name}_module MODULE ${ARGN})
  set_target_properties(${name}_module PROPERTIES PREFIX "" OUTPUT_NAME ${name}
    LIBRARY_OUTPUT_DIRECTORY ${CMAKE_BINARY_DIR}/modules)
  target_link_libraries(${name}_module PRIVATE ats_interfaces)
  target_link_options(${name}_module PRIVATE -Wl,-Bsymbolic)
  if(MODULE_LINKER_SCRIPT)
    target_link_options(${name}_module PRIVATE -Wl,-T,${MODULE_LINKER_SCRIPT})
    set_target_properties(${name}_module PROPERTIES LINK_DEPENDS ${MODULE_LINKER_SCRIPT})
  endif()
endfunction()

# A program that runs hosts and loads modules. Modules find the kernel calls in the program.
function(add_host_program name)
  add_executable(${name} ${ARGN})
  set_target_properties(${name} PROPERTIES ENABLE_EXPORTS ON)
  target_link_libraries(${name} PRIVATE ats_records ats_exec ats_kernel ats_stack ats_fabric ats_umad ats_world)
  add_dependencies(${name} ats_module ibat_module ucm_module)
endfunction()
