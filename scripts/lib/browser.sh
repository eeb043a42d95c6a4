# shellcheck shell=bash
# The tests of the console's page in a real browser, for scripts/test --browser. Source it behind
# common.sh. What they see is left in browser-output/.

# A node that came from elsewhere than Debian serves as well.
install_browser() {
  local packages=(chromium fonts-dejavu-core ffmpeg util-linux iproute2)
  command -v node >/dev/null || packages+=(nodejs)
  command -v npm >/dev/null || packages+=(npm)
  install_missing "${packages[@]}"
  npm ci --prefix tests/browser --ignore-scripts --no-audit --no-fund --loglevel=error ||
    fail 'npm could not install what tests/browser/package-lock.json names'
}

# run_browser_tests REGEX: each file in namespaces of its own, so that the box can have its real
# addresses, and the camera its own.
run_browser_tests() {
  local own_namespaces=(unshare --net --mount --pid --fork --kill-child --mount-proc) file failed=()
  [[ $EUID -eq 0 ]] || own_namespaces+=(--user --map-root-user)
  mkdir -p browser-output || fail 'cannot write to browser-output/'
  rm -f browser-output/*.log browser-output/*.png
  for file in tests/browser/*.test.js; do
    [[ $file =~ $1 ]] || continue
    say "$file"
    timeout 240 "${own_namespaces[@]}" bash scripts/plays/stage.sh \
      bash scripts/plays/browser.sh node --test --test-reporter=spec "$file" || failed+=("$file")
  done
  [[ ${#failed[@]} -eq 0 ]] || fail "in the browser failed: ${failed[*]}"
}
