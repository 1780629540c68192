# A debug package made by cpack names its files by their paths on the building machine in its sums, and has no
# directory with its documents: both are put right.

list(FILTER CPACK_PACKAGE_FILES INCLUDE REGEX "\\.ddeb$")
foreach(package ${CPACK_PACKAGE_FILES})
  set(tree ${package}.tree)
  get_filename_component(name ${package} NAME)
  string(REGEX REPLACE "_.*" "" name ${name})
  string(REPLACE "-dbgsym" "" main ${name})
  execute_process(COMMAND dpkg-deb --raw-extract ${package} ${tree} COMMAND_ERROR_IS_FATAL ANY)
  file(MAKE_DIRECTORY ${tree}/usr/share/doc)
  file(CREATE_LINK ${main} ${tree}/usr/share/doc/${name} SYMBOLIC)
  execute_process(COMMAND sh -c "find usr -type f -exec md5sum {} + >DEBIAN/md5sums && chmod -R go-w ."
                  WORKING_DIRECTORY ${tree} COMMAND_ERROR_IS_FATAL ANY)
  execute_process(COMMAND dpkg-deb --root-owner-group --build ${tree} ${package}
                  OUTPUT_QUIET COMMAND_ERROR_IS_FATAL ANY)
  file(REMOVE_RECURSE ${tree})
endforeach()
