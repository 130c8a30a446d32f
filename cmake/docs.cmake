# Manuals, completions and the editor's files, in the usual places below the prefix.
include(GNUInstallDirs)

# Where a shell looks depends on who built it; Debian's zsh for one wants
# share/zsh/vendor-completions of its packages.
set(VROX_BASH_COMPLETIONS "${CMAKE_INSTALL_DATADIR}/bash-completion/completions" CACHE STRING
  "directory of bash completions")
set(VROX_ZSH_COMPLETIONS "${CMAKE_INSTALL_DATADIR}/zsh/site-functions" CACHE STRING
  "directory of zsh completions")
set(VROX_VIM_FILES "${CMAKE_INSTALL_DATADIR}/vim/vimfiles" CACHE STRING
  "directory of vim's ftdetect and syntax")

install(FILES man/vrox.8 man/vrox-check.8 DESTINATION ${CMAKE_INSTALL_MANDIR}/man8)
install(FILES man/vrox.conf.5 DESTINATION ${CMAKE_INSTALL_MANDIR}/man5)

# bash loads the file that is named like the command.
install(FILES completions/vrox.bash DESTINATION ${VROX_BASH_COMPLETIONS} RENAME vrox)
install(FILES completions/vrox.bash DESTINATION ${VROX_BASH_COMPLETIONS} RENAME vrox-check)
install(FILES completions/_vrox DESTINATION ${VROX_ZSH_COMPLETIONS})
install(DIRECTORY editors/vim/ftdetect editors/vim/syntax DESTINATION ${VROX_VIM_FILES})
install(FILES README.md SECURITY.md CHANGELOG.md LICENSE DESTINATION ${CMAKE_INSTALL_DOCDIR})
