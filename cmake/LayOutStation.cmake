# Copies the template station files that are missing; an operator's own settings,
# bindings and counters in an existing station folder are never overwritten.
file(GLOB_RECURSE files RELATIVE ${TEMPLATE} ${TEMPLATE}/*)
foreach(f ${files})
  if(NOT EXISTS ${STATION}/${f})
    get_filename_component(dir ${STATION}/${f} DIRECTORY)
    file(MAKE_DIRECTORY ${dir})
    file(COPY_FILE ${TEMPLATE}/${f} ${STATION}/${f})
  endif()
endforeach()
