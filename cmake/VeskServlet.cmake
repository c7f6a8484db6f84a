# vesk_add_servlet(NAME SOURCES...): builds the servlet module NAME.clazz from C or C++
# sources against the library's headers. C is compiled with -fexceptions so that the
# library's exceptions can pass through the module's frames. The module links back
# against the shared library when it is part of the same build.
set(_VESK_SERVLET_INCLUDE ${CMAKE_CURRENT_LIST_DIR}/../include)

function(vesk_add_servlet NAME)
  if(NOT ARGN)
    message(FATAL_ERROR "vesk_add_servlet(${NAME}): no sources given")
  endif()
  add_library(${NAME} MODULE ${ARGN})
  target_include_directories(${NAME} PRIVATE ${_VESK_SERVLET_INCLUDE})
  target_compile_options(${NAME} PRIVATE $<$<COMPILE_LANGUAGE:C>:-fexceptions>)
  set_target_properties(${NAME} PROPERTIES PREFIX "" SUFFIX ".clazz"
    C_STANDARD 11 CXX_STANDARD 20 POSITION_INDEPENDENT_CODE ON)
  if(TARGET vesk)
    target_link_libraries(${NAME} PRIVATE vesk)
  endif()
endfunction()
