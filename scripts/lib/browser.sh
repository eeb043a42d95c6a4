# shellcheck shell=bash
# The tests of the console's page in a real browser, for scripts/test --browser. Source it behind
# common.sh. What they see is left in browser-output/.
# shellcheck disable=SC2154 # common.sh's packages

# A node that came from elsewhere than Debian serves as well.
install_browser() {
  local packages=("${build_packages[@]}" "${console_packages[@]}"
    chromium fonts-dejavu-core ffmpeg util-linux iproute2)
  command -v node >/dev/null || packages+=(nodejs)
  command -v npm >/dev/null || packages+=(npm)
  install_missing "${packages[@]}"
  npm ci --prefix tests/browser --ignore-scripts --no-audit --no-fund --loglevel=error ||
    fail 'npm could not install what tests/browser/package-lock.json names'
}

# test_in_browser REGEX: those files of tests/browser whose names match, each in namespaces of its
# own, so that camera and box can have their real addresses.
test_in_browser() {
  local own_namespaces=(unshare --net --mount --pid --fork --kill-child --mount-proc)
  local file failed=() ran=0
  [[ $EUID -eq 0 ]] || own_namespaces+=(--user --map-root-user)

  step 'What the browser needs'
  install_browser
  step 'Build: release'
  configure release -D KESTRELBRIDGE_CONSOLE=ON
  build release kestrelbridge kestrelctl kestrelshare kestrelconsole

  step 'Tests in the browser'
  mkdir -p browser-output || fail 'cannot write to browser-output/'
  rm -f browser-output/*
  for file in tests/browser/*.test.js; do
    [[ $file =~ $1 ]] || continue
    say "$file"
    ran=$((ran + 1))
    timeout --kill-after=5 180 "${own_namespaces[@]}" bash scripts/plays/stage.sh \
      bash scripts/plays/browser.sh node --test --test-reporter=spec "$file" || failed+=("$file")
  done
  [[ $ran -gt 0 ]] || fail "no file of tests/browser matches $1"
  [[ ${#failed[@]} -eq 0 ]] || fail "failed in the browser: ${failed[*]}"
  done_with "$ran files of tests passed; what was seen is in browser-output/."
}
