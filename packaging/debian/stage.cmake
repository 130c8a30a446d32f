# What a Debian package has beside what "cmake --install" puts there.
# file(INSTALL) puts DESTDIR in front by itself.
set(root ${CPACK_TEMPORARY_DIRECTORY})
set(source ${CPACK_VROX_SOURCE})
set(doc ${root}/usr/share/doc/vrox)
set(directory DIRECTORY_PERMISSIONS OWNER_READ OWNER_WRITE OWNER_EXECUTE GROUP_READ GROUP_EXECUTE WORLD_READ WORLD_EXECUTE)

# The quickstart serves this machine alone, so the package may start with it.
file(INSTALL DESTINATION /etc/vrox TYPE FILE FILES ${source}/examples/quickstart.conf RENAME vrox.conf ${directory})
file(INSTALL DESTINATION /etc/default TYPE FILE FILES ${source}/packaging/debian/default RENAME vrox ${directory})
file(INSTALL DESTINATION /usr/share/doc/vrox TYPE FILE FILES ${source}/packaging/debian/copyright ${directory})
file(INSTALL DESTINATION /usr/share/doc/vrox TYPE FILE FILES ${source}/packaging/debian/changelog RENAME changelog.Debian ${directory})
file(INSTALL DESTINATION /usr/share/lintian/overrides TYPE FILE FILES ${source}/packaging/debian/lintian-overrides
  RENAME vrox ${directory})
file(REMOVE ${doc}/LICENSE)  # is in the copyright file
if(EXISTS ${doc}/CHANGELOG.md)
  file(RENAME ${doc}/CHANGELOG.md ${doc}/changelog)
endif()
if(EXISTS ${root}/usr/share/zsh/site-functions)
  file(RENAME ${root}/usr/share/zsh/site-functions ${root}/usr/share/zsh/vendor-completions)
endif()
file(GLOB zipped ${doc}/changelog* ${root}/usr/share/man/man*/*)
execute_process(COMMAND gzip -9nf ${zipped} COMMAND_ERROR_IS_FATAL ANY)
