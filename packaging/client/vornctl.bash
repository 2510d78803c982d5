# bash completion for vornctl
if type register-python-argcomplete >/dev/null 2>&1; then
  eval "$(register-python-argcomplete vornctl)"
fi
