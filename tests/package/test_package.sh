#!/usr/bin/env bash
# Installs the packages on this machine, uses them as somebody would who has nothing else, and
# removes them again, also after a failure:
#
#   test_package.sh DIRECTORY-OF-THE-PACKAGES SOURCE-TREE
set -euo pipefail
packages=$1
source_tree=$2
names=(hublink hublink-bridge hublink-dev python3-hublink)
root=()
[ "$(id -u)" = 0 ] || root=(sudo)
scratch=$(mktemp -d)
export TMPDIR=$scratch LC_ALL=C MANWIDTH=200
keeper='' hub=''

fail() {
  echo "package: $*" >&2
  exit 1
}

left_by_name() { find /usr /etc /var -xdev \( -name '*hublink*' -o -name '*stpc*' \) 2>/dev/null | sort; }

finish() {
  [ -z "$keeper" ] || kill "$keeper" 2>/dev/null || true
  [ -z "$hub" ] || kill "$hub" 2>/dev/null || true
  dpkg-query -W "${names[@]}" >/dev/null 2>&1 && "${root[@]}" dpkg --purge "${names[@]}" >/dev/null
  rm -rf "$scratch"
}

# What bash offers at the last of these words, the first of which is the command.
offers() {
  bash -c '. /usr/share/bash-completion/bash_completion
    _completion_loader "$1"
    completer=$(complete -p "$1" | sed "s/.* -F \([^ ]*\).*/\1/")
    COMP_WORDS=("$@") COMP_CWORD=$(($# - 1))
    "$completer"
    printf "%s\n" "${COMPREPLY[@]}"' completing "$@" 2>/dev/null
}

options_of() { "$@" --help | sed -nE 's/^ +(-h,)?(--[a-z-]+).*/\2/p'; }

# Each option that the command or subcommand knows is in its man page and in both completions.
test_help() { # COMMAND [SUBCOMMAND]
  local option zsh=/usr/share/zsh/vendor-completions/_$1 page
  page=$(man "$1" | col -b)
  for option in $(options_of "$@"); do
    grep -qe "$option\b" <<<"$page" || fail "$1(1) is silent about $* $option"
    grep -qxe "$option" <(offers "$@" --) || fail "bash doesn't offer $* $option"
    grep -qe "$option\b" "$zsh" || fail "zsh doesn't offer $* $option"
  done
}

# Each option is in the man page, the example is a configuration, and the unit names what is there.
test_bridge() {
  local option page example=/usr/share/doc/hublink-bridge/examples/bridge.conf
  page=$(man hublink-bridge | col -b)
  for option in $(options_of hublink-bridge); do
    grep -qe "$option\b" <<<"$page" || fail "hublink-bridge(1) is silent about $option"
  done
  sed 's/^# \(name\|export\|import\|export-value\) = /\1 = /' "$example" >"$scratch/bridge.conf"
  grep -q grace <(hublink-bridge --realm r --config "$scratch/bridge.conf" --grace -1 2>&1) ||
    fail "the example isn't read up to the option behind it"
  grep -q "^ExecStart=$(command -v hublink-bridge) " /usr/lib/systemd/user/hublink-bridge@.service ||
    fail "the unit starts another program"
}

test_commands() {
  local command subcommand subcommands page
  grep -q Usage: <(hublink 2>&1) || fail "hublink doesn't run"
  test_bridge
  grep -q '"Echo"' <(hublink-services) || fail "the example provider isn't described"
  for page in hublink-kvs hublink hublinkctl hublink-services hublink-bridge stpc; do
    man -w "$page" >/dev/null
    mandoc -T lint -W warning "$(man -w "$page")"
  done
  grep -qxe -hl_log_internal <(offers hublink -hl_) || fail "bash doesn't complete hublink"
  for command in hublink-services stpc hublinkctl; do test_help "$command"; done
  subcommands=$(hublinkctl --help | sed -nE '/^Subcommands:/,$ s/^  ([a-z-]+) .*/\1/p')
  [ "$subcommands" ] || fail "hublinkctl has no subcommands"
  diff <(sort <<<"$subcommands") <(offers hublinkctl '' | sort) || fail "bash's subcommands differ"
  for subcommand in $subcommands; do
    test_help hublinkctl "$subcommand"
    grep -qE "^ +$subcommand\b" <(man hublinkctl | col -b) || fail "no $subcommand in hublinkctl(1)"
  done
  zsh -fc 'autoload -Uz compinit; compinit -u -D
    for command in hublink hublinkctl hublink-services stpc; do
      (( $+_comps[$command] )) && autoload +X -Uz $_comps[$command] || exit 1
    done' || fail "zsh doesn't find the completions"
}

start_hub() {
  local fact
  coproc KEEPER { exec hublinkctl start --stay; }
  keeper=$KEEPER_PID
  while read -r fact; do
    case $fact in process:*) hub=${fact#* } && break ;; esac
  done <&"${KEEPER[0]}"
  [ "$hub" ] || fail "hublinkctl doesn't start a hub"
}

# Both plugins of the example, started in the order in which a person shouldn't start them.
test_plugins() { # DIRECTORY
  local provider
  timeout 60 "$1/converter_requester" 20 -40 >"$scratch/converted" &
  local requester=$!
  timeout 60 "$1/converter_provider" &
  provider=$!
  wait "$requester" || fail "the requester in $1 fails"
  wait "$provider" || fail "the provider in $1 fails"
  diff - "$scratch/converted" <<'TEXT' || fail "the requester in $1 got something else"
20 C are 68 F
-40 C are -40 F
the provider has served 2 requests
TEXT
}

# Converts by the provider that the hub has started, in Python.
test_python() {
  stpc /usr/share/doc/hublink/examples/external/converter.stp --language python --output "$scratch"
  cat >"$scratch/convert.py" <<'PYTHON'
import asyncio
import hublink
from converter import ConverterRequester, ToFahrenheit

async def main():
    async with await hublink.connect() as plugin:
        converter = ConverterRequester(await plugin.request("Converter"))
        reply = await converter.to_fahrenheit(ToFahrenheit(celsius=-40))
        print(f"-40 C are {reply.fahrenheit:g} F")

asyncio.run(main())
PYTHON
  grep -qx -- '-40 C are -40 F' <(/usr/bin/python3 "$scratch/convert.py") ||
    fail "a plugin in Python isn't served"
}

test_examples() {
  local examples=/usr/share/doc/hublink/examples
  cp -r "$examples/external" "$scratch/cmake"
  cp -r "$examples/external" "$scratch/make"
  cmake -S "$scratch/cmake" -B "$scratch/cmake/build" >/dev/null
  cmake --build "$scratch/cmake/build" >/dev/null
  make -s -C "$scratch/make"
  # shellcheck disable=SC2046
  g++ -std=c++20 "$examples/requester.cpp" $(pkg-config --cflags --libs hublink) \
    -o "$scratch/echo_requester"
  start_hub
  test_plugins "$scratch/cmake/build"
  test_plugins "$scratch/make"
  hublinkctl launch "$scratch/make/converter_provider" >/dev/null
  test_python
  hublinkctl launch "$scratch/make/converter_provider" >/dev/null
  grep -qx '100 C are 212 F' <("$scratch/cmake/build/converter_requester" 100) ||
    fail "a provider that the hub has started doesn't serve"
  # Nobody provides Echo: the hub starts the installed provider.
  "$scratch/echo_requester" -hl_connect_hublink_port \
    "$(hublinkctl find | sed -n 's/^port: //p')" -count 100 >/dev/null
  kill "$keeper"
  timeout 60 tail --pid="$hub" -f /dev/null || fail "the hub doesn't stop"
  keeper='' hub=''
}

test_removal() { # FILE-WITH-WHAT-WAS-THERE
  local path
  dpkg -L "${names[@]}" | sort -u >"$scratch/installed"
  "${root[@]}" dpkg --purge "${names[@]}" >/dev/null
  while read -r path; do
    [ ! -e "$path" ] || dpkg -S "$path" >/dev/null 2>&1 || [ "$path" = /. ] ||
      fail "$path is left behind"
  done <"$scratch/installed"
  diff "$1" <(left_by_name) || fail "something is left behind"
}

if grep -q ' installed$' <(dpkg-query -W -f '${Status}\n' "${names[@]}" 2>/dev/null); then
  rm -r "$scratch"
  fail "${names[*]}: installed on this machine already; remove them before the test"
fi
trap finish EXIT
left_by_name >"$scratch/before"
lintian --allow-root --fail-on error "$packages"/*.deb
# Some machines are set up to leave out manuals and documentation.
"${root[@]}" dpkg --path-include='/usr/share/man/*' --path-include='/usr/share/doc/*' \
  -i "$packages"/*.deb >/dev/null
named=$(dpkg -L "${names[@]}" | xargs grep -slF --directories=skip "$source_tree/" || true)
[ -z "$named" ] || fail "the place of the build is named in: $named"
test_commands
test_examples
test_removal "$scratch/before"
echo "package: all is well"
