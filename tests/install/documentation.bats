#!/usr/bin/env bats
# The documentation site.

bats_require_minimum_version 1.5.0

setup() { cd "$BATS_TEST_DIRNAME/../.." || exit 1; }

@test "the site of public headers and guide is made without a warning" {
    scripts/docs.sh
    for page in getting-started operating troubleshooting conformance classNubo_1_1ServiceDiscovery_1_1ServiceDiscovery; do
        [ -n "$(find build-docs/html -iname "*$page*.html" -size +2k)" ] || { echo "no page: $page" >&2 && return 1; }
    done
}
