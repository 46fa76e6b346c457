#!/usr/bin/env bats
# The manual page and the completions know what nubo-sd knows. Its help has the last word. $NUBO_SD is the program.

bats_require_minimum_version 1.5.0

setup() { cd "$BATS_TEST_DIRNAME/../../packaging" || exit 1; }

# The subcommands, and the options of one of them or of the tool itself, as the help says.
subcommands() { "$NUBO_SD" --help | sed -n '/^Subcommands:/,/^$/s/^  \([a-z-]*\) .*/\1/p' | sort; }
options_of() { "$NUBO_SD" "$@" --help | grep -E '^  -' | cut -c3- | grep -oE '^-[A-Za-z-]+(,--[a-z-]+)?' | tr , '\n' | sort -u; }
own_options_of() { options_of "$1" | grep -vxE -e '-h|--help' || true; }

# same WHAT EXPECTED ACTUAL
same() { diff <(echo "$2") <(echo "$3") >&2 || { echo "^ $1: < the help, > the documentation" >&2 && return 1; }; }

# The options that stand as headings in a part of the manual page.
page_options() {
    sed 's/\\-/-/g' nubo-sd.1 | awk -v part="$1" '/^\.S[HS]/ { inside = $0 == part } inside && tag; { tag = /^\.TP/ }' |
        sed -E 's/\\f.*//' | grep -oE -e '(^| )-[A-Za-z-]+' | tr -d ' ' | sort -u
}

@test "the manual page knows every subcommand and option, and no others" {
    same subcommands "$(subcommands)" "$(sed -nE 's/\\-/-/g; s/^\.SS nubo-sd //p' nubo-sd.1 | sort)"
    same nubo-sd "$(options_of)" "$(page_options '.SH OPTIONS')"
    for subcommand in $(subcommands); do
        same "$subcommand" "$(own_options_of "$subcommand")" "$(page_options ".SS nubo-sd $subcommand")"
    done
}

# completed WORD...: what bash offers for the last word.
completed() {
    # shellcheck disable=SC1091 # named as bash wants it
    source completions/nubo-sd
    # shellcheck disable=SC2034 # the function reads it
    COMP_WORDS=(nubo-sd "$@") COMP_CWORD=$#
    _nubo_sd
    printf '%s\n' "${COMPREPLY[@]}" | sort -u
}

@test "bash completes every subcommand and option, and no others" {
    same subcommands "$(subcommands)" "$(completed '' | grep -v '^-')"
    same nubo-sd "$(options_of)" "$(completed -)"
    for subcommand in $(subcommands); do
        same "$subcommand" "$({ options_of && options_of "$subcommand"; } | sort -u)" "$(completed "$subcommand" -)"
    done
}

@test "bash completes values, and finds the subcommand behind options" {
    [ "$(completed announce --protocol u)" = udp ]
    [ "$(completed browse --log-level n)" = notice ]
    [ "$(completed --interface lo announce --po)" = --port ]
    [ "$(completed announce -i l)" = lo ]
    [ "$(completed announce --version 1)" = "" ]
}

# The options in a list of the zsh completion.
zsh_options() {
    sed -nE "/^    $1=\\(/,/^    \\)/p" completions/_nubo-sd | zsh_names
}
zsh_names() { sed -E "s/\\[.*//; s/^'?\(- \*\)//; s/\(- \*\)//" | grep -oE -e '--?[A-Za-z][a-z-]*' | sort -u; }

@test "zsh completes every subcommand and option, and no others" {
    same subcommands "$(subcommands)" \
        "$(sed -n '/^    subcommands=(/,/^    )/p' completions/_nubo-sd | sed -nE "s/^ *'([a-z-]+):.*/\\1/p" | sort)"
    # --version is announce's own as well, and so not in the list of what all have.
    same nubo-sd "$(options_of)" "$({ zsh_options common && echo --version; } | sort)"
    for subcommand in $(subcommands); do
        same "$subcommand" "$(own_options_of "$subcommand")" "$(zsh_options "$subcommand")"
        grep -qE "^        $subcommand\) _arguments .*\\\$$subcommand\b" completions/_nubo-sd
    done
}

@test "zsh can read its completion" {
    command -v zsh >/dev/null || skip "zsh is not installed"
    zsh -n completions/_nubo-sd
}

@test "the site of public headers and guide is made without a warning" {
    ../scripts/docs.sh
    for page in getting-started operating troubleshooting conformance classNubo_1_1ServiceDiscovery_1_1ServiceDiscovery; do
        [ -n "$(find ../build-docs/html -iname "*$page*.html" -size +2k)" ] || fail "no page: $page"
    done
}
