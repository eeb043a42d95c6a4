#!/usr/bin/env bash
# The page's files that others wrote are those that SHA256SUMS names, unchanged; none is without its
# checksum, its version and its licence. Needs no browser.
set -euo pipefail
cd "$(dirname "${BASH_SOURCE[0]}")/../../console/page/vendor"

sha256sum --check --strict --quiet SHA256SUMS
for file in *; do
  case "$file" in
    README.md | SHA256SUMS) continue ;;
  esac
  grep -q "  $file\$" SHA256SUMS || { echo "$file has no checksum" && exit 1; }
  grep -q "\`$file\`" README.md || { echo "$file is not in README.md" && exit 1; }
done
