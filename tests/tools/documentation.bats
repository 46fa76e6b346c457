#!/usr/bin/env bats
# The manual page and the completions have the subcommands, options and values of nubo-sd, and no others. The program
# makes its help from what it accepts, so the help is the reference. $NUBO_SD is the program.

bats_require_minimum_version 1.5.0

setup() { cd "$BATS_TEST_DIRNAME/../../packaging" || exit 1; }

# From the help: the subcommands; the options of a subcommand, or of the tool itself; those that take a value.
subcommands() { "$NUBO_SD" --help | sed -n '/^Subcommands:/,/^$/s/^  \([a-z-]*\) .*/\1/p' | sort; }
names() { cut -c3- | grep -oE '^-[A-Za-z-]+(,--[a-z-]+)?' | tr , '\n' | sort -u; }
options_of() { "$NUBO_SD" "$@" --help | grep -E '^  -' | names; }
own_options_of() { options_of "$1" | without_help; }
value_options_of() { "$NUBO_SD" "$@" --help | grep -E '^  -[^ ]+ [^ ]' | names; }
without_help() { grep -vxE -e '-h|--help' || true; }

# fixed_values [SUBCOMMAND]: prints "--protocol tcp udp" for each option that takes certain values only.
fixed_values() { "$NUBO_SD" "$@" --help | sed -nE 's/^  ([a-z-]+) [^ ]*:\{([^}]*)\}.*/\1 \2/p' | tr , ' '; }

# same WHAT EXPECTED ACTUAL
same() { diff <(echo "$2") <(echo "$3") >&2 || { echo "^ $1: < the help, > the documentation" >&2 && return 1; }; }

@test "the reason for a missing subcommand names every subcommand" {
    run "$NUBO_SD"
    same subcommands "$(subcommands)" "$(sed 's/.*: //; s/, /\n/g; s/ or /\n/' <<<"$output")"
}

# page_headings PART: the headings of options in that part of the page. page_names reads the names in headings.
page_headings() {
    sed 's/\\-/-/g' nubo-sd.1 |
        awk -v part="$1" '/^\.S[HS]/ { inside = $0 == part } inside && tag; { tag = /^\.TP/ }'
}
page_names() { sed -E 's/\\f.*//' | grep -oE -e '(^| )-[A-Za-z-]+' | tr -d ' ' | sort -u; }

@test "the manual page has every subcommand and option, and no others" {
    same subcommands "$(subcommands)" "$(sed -nE 's/\\-/-/g; s/^\.SS nubo-sd //p' nubo-sd.1 | sort)"
    same synopsis "$(subcommands)" \
        "$(sed -n '/^\.SH SYNOPSIS/,/^\.SH DESCRIPTION/p' nubo-sd.1 | sed -nE 's/^\.B nubo\\-sd ([a-z-]+).*/\1/p' | sort -u)"
    same nubo-sd "$(options_of)" "$(page_headings '.SH OPTIONS' | page_names)"
    for subcommand in $(subcommands); do
        same "$subcommand" "$(own_options_of "$subcommand")" "$(page_headings ".SS nubo-sd $subcommand" | page_names)"
    done
}

@test "the manual page shows which options take a value" {
    same nubo-sd "$(value_options_of)" "$(page_headings '.SH OPTIONS' | grep -F '\f' | page_names)"
    for subcommand in $(subcommands); do
        same "$subcommand" "$(value_options_of "$subcommand")" \
            "$(page_headings ".SS nubo-sd $subcommand" | grep -F '\f' | page_names)"
    done
}

# page_text OPTION: its paragraphs of the page.
page_text() { sed 's/\\-/-/g' nubo-sd.1 | awk -v name="^[.]BR? $1( |\$)" '/^\.(TP|S[HS])/ { inside = 0 } $0 ~ name { inside = 1 } inside'; }

@test "the manual page names every value of an option that takes certain ones only" {
    for subcommand in '' $(subcommands); do
        # shellcheck disable=SC2086 # no word without a subcommand
        fixed_values $subcommand | while read -r option values; do
            for value in $values; do
                page_text "$option" | grep -qE -e "(^|[^a-z-])$value([^a-z-]|\$)" || fail "$option $value" || return
            done
        done
    done
}

# completed WORD...: the completions that bash offers for the last word.
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

@test "bash offers no option in place of an option's value" {
    for subcommand in $(subcommands); do
        same "$subcommand" "$({ value_options_of && value_options_of "$subcommand"; } | sort -u)" \
            "$(for option in $(completed "$subcommand" -); do
                [ -n "$(completed "$subcommand" "$option" --)" ] || echo "$option"
            done)"
    done
}

@test "bash finds the subcommand behind every option with a value" {
    for option in $(value_options_of); do
        [ "$(completed "$option" find announce --po)" = --port ] || fail "$option"
    done
}

@test "bash completes values" {
    for subcommand in '' $(subcommands); do
        # shellcheck disable=SC2086 # no word without a subcommand
        fixed_values $subcommand | while read -r option values; do
            same "$option" "$(tr ' ' '\n' <<<"$values" | sort)" "$(completed $subcommand "$option" '')"
        done
    done
    [ "$(completed announce --protocol u)" = udp ]
    [ "$(completed announce -i l)" = lo ]
    [ "$(completed announce --version 1)" = "" ]
}

# zsh_list NAME: the lines of a list in the completion. zsh_names reads the options in lines.
zsh_list() { sed -nE "/^    $1=\\(/,/^    \\)/p" completions/_nubo-sd; }
zsh_names() { sed -E "s/\\[.*//; s/^'?\(- \*\)//; s/\(- \*\)//" | grep -oE -e '--?[A-Za-z][a-z-]*' | sort -u; }

@test "zsh completes every subcommand and option, and no others" {
    same subcommands "$(subcommands)" "$(zsh_list subcommands | sed -nE "s/^ *'([a-z-]+):.*/\\1/p" | sort)"
    # announce has its own --version, so the common list leaves it out.
    same nubo-sd "$(options_of)" "$({ zsh_list common | zsh_names && echo --version; } | sort)"
    for subcommand in $(subcommands); do
        same "$subcommand" "$(own_options_of "$subcommand")" "$(zsh_list "$subcommand" | zsh_names)"
        grep -qE "^        $subcommand\) _arguments .*\\\$$subcommand\b" completions/_nubo-sd
        grep -qE "^    local -a .*\b$subcommand\b" completions/_nubo-sd
    done
}

@test "zsh completes a value where there is one" {
    same nubo-sd "$(value_options_of)" "$(zsh_list common | grep -F ']:' | zsh_names)"
    for subcommand in $(subcommands); do
        same "$subcommand" "$(value_options_of "$subcommand")" "$(zsh_list "$subcommand" | grep -F ']:' | zsh_names)"
        local argument
        argument=$("$NUBO_SD" "$subcommand" --help | grep -c '^Positionals:' || true)
        same "argument of $subcommand" "$argument" \
            "$(grep -cE "^        $subcommand\) _arguments .*'1:" completions/_nubo-sd || true)"
    done
}

@test "zsh completes every value of an option that takes certain ones only" {
    for subcommand in '' $(subcommands); do
        # shellcheck disable=SC2086 # no word without a subcommand
        fixed_values $subcommand | while read -r option values; do
            zsh_list "${subcommand:-common}" | grep -F -- "${option}[" | grep -qF ":($values)'" ||
                fail "$option $values" || return
        done
    done
}

@test "zsh can read its completion" {
    command -v zsh >/dev/null || skip "zsh is not installed"
    zsh -n completions/_nubo-sd
}

fail() {
    echo "not documented: $*" >&2
    return 1
}
