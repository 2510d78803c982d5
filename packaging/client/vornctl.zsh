#compdef vornctl
if (( $+commands[register-python-argcomplete] )); then
  autoload -U +X bashcompinit && bashcompinit
  eval "$(register-python-argcomplete vornctl)"
fi
