# The two kinds of targets: kernel modules, and programs that load them.

# The interfaces that modules and their host share.
add_library(ats_interfaces INTERFACE)
target_include_directories(ats_interfaces INTERFACE ${PROJECT_SOURCE_DIR}/include ${PROJECT_SOURCE_DIR}/ib-code/include)

# A module is a shared object whose undefined symbols are kernel calls. -Bsymbolic binds its exported variables to the
# module itself, so reading one needs a single load. Its units are compiled one by one, because each trace line names
# its unit.
function(add_kernel_module name)
  add_library(${name}_module MODULE ${ARGN})
  set_target_properties(${name}_module PROPERTIES PREFIX "" OUTPUT_NAME ${name} UNITY_BUILD OFF
    LIBRARY_OUTPUT_DIRECTORY ${CMAKE_BINARY_DIR}/modules)
  target_link_libraries(${name}_module PRIVATE ats_interfaces)
  target_link_options(${name}_module PRIVATE -Wl,-Bsymbolic)
endfunction()

# A program that runs hosts and loads modules. Modules find the kernel calls in the program.
function(add_host_program name)
  add_executable(${name} ${ARGN})
  set_target_properties(${name} PROPERTIES ENABLE_EXPORTS ON)
  target_link_libraries(${name} PRIVATE ats_records ats_exec ats_kernel ats_stack ats_fabric ats_umad ats_world)
  add_dependencies(${name} ats_module ibat_module ucm_module)
endfunction()
