# Puts links to the model packages in MODELS into DESTINATION, and takes away links whose package is gone.
# A link and not a copy, so that a changed package counts without another build.
file(GLOB links LIST_DIRECTORIES true "${DESTINATION}/*.mlpackage")
foreach(link IN LISTS links)
  if(IS_SYMLINK "${link}" AND NOT EXISTS "${link}")
    file(REMOVE "${link}")
  endif()
endforeach()
file(GLOB packages LIST_DIRECTORIES true "${MODELS}/*.mlpackage")
foreach(package IN LISTS packages)
  get_filename_component(name "${package}" NAME)
  file(CREATE_LINK "${package}" "${DESTINATION}/${name}" COPY_ON_ERROR SYMBOLIC)
endforeach()
