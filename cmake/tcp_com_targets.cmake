# Settings of the project's own targets; nothing here reaches those who use the library.

set(TCP_COM_WARNINGS -Wall -Wextra -Wpedantic -Wshadow -Wconversion -Werror)

function(tcp_com_target_defaults target)
  target_compile_features(${target} PUBLIC cxx_std_17)
  target_compile_options(${target} PRIVATE ${TCP_COM_WARNINGS}
                                           -fmacro-prefix-map=${PROJECT_SOURCE_DIR}/=)
  set_target_properties(${target} PROPERTIES CXX_EXTENSIONS OFF)
endfunction()

# A shared library of the project: versioned, only marked symbols visible.
function(tcp_com_shared_library target)
  tcp_com_target_defaults(${target})
  set_target_properties(
    ${target}
    PROPERTIES VERSION ${PROJECT_VERSION}
               SOVERSION ${PROJECT_VERSION_MAJOR}
               CXX_VISIBILITY_PRESET hidden
               VISIBILITY_INLINES_HIDDEN ON)
  # Threads may run until the process ends: their code must stay mapped.
  target_link_options(
    ${target} PRIVATE -Wl,-z,nodelete -Wl,--no-undefined
    -Wl,--version-script=${PROJECT_SOURCE_DIR}/cmake/exports.map)
  set_property(TARGET ${target} PROPERTY LINK_DEPENDS ${PROJECT_SOURCE_DIR}/cmake/exports.map)
  add_library(tcp_com::${target} ALIAS ${target})
endfunction()
