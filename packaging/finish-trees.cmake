# Brings the staged trees into the shape that Debian wants, before packages are made of them.

foreach(component ${CPACK_COMPONENTS_ALL})
  string(TOUPPER ${component} upper)
  set(root ${CPACK_TEMPORARY_DIRECTORY}/${component})
  set(doc ${root}/usr/share/doc/${CPACK_DEBIAN_${upper}_PACKAGE_NAME})
  file(COPY ${CPACK_LUMO_PACKAGING}/${component}/ DESTINATION ${doc}
       FILE_PERMISSIONS OWNER_READ OWNER_WRITE GROUP_READ WORLD_READ)
  file(GLOB texts ${root}/usr/share/man/man?/*.[0-9] ${doc}/changelog.Debian)
  execute_process(COMMAND gzip -9n ${texts} COMMAND_ERROR_IS_FATAL ANY)
endforeach()
