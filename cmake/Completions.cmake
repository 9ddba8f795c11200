# Completions of the programs for bash, zsh and fish, where Debian's shells look for them.
install(FILES completions/bash/zent completions/bash/zentctl completions/bash/zentmon
  DESTINATION ${CMAKE_INSTALL_DATADIR}/bash-completion/completions)
install(FILES completions/zsh/_zent completions/zsh/_zentctl completions/zsh/_zentmon
  DESTINATION ${CMAKE_INSTALL_DATADIR}/zsh/vendor-completions)
install(FILES completions/fish/zent.fish completions/fish/zentctl.fish completions/fish/zentmon.fish
  DESTINATION ${CMAKE_INSTALL_DATADIR}/fish/vendor_completions.d)
