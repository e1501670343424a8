#!/usr/bin/env bash
# Renders the HTML report of a completed run, as the relay received it, in
# headless Chromium: a screenshot, and the printed page's text, which must
# show the run's counts. Skipped (77) without chromium and pdftotext.
#   render_report.sh MAIL_TEST [SCREENSHOT]
set -euo pipefail
browser=$(command -v chromium || command -v chromium-browser || true)
if [ -z "$browser" ] || ! command -v pdftotext >/dev/null; then
  echo "render_report: no chromium or pdftotext here: skipped"
  exit 77
fi
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
KOVRA_MAIL_HTML=$work/report.html "$1" \
  --gtest_filter='Mail.ReportsOfACompletedRun*' >"$work/test.log" 2>&1 ||
  { cat "$work/test.log"; exit 1; }
render() {
  timeout 120 "$browser" --headless --no-sandbox --disable-gpu \
    --hide-scrollbars --no-first-run --user-data-dir="$work/profile" \
    "$@" "file://$work/report.html" >>"$work/browser.log" 2>&1 ||
    { cat "$work/browser.log"; exit 1; }
}
render --window-size=800,1300 --screenshot="$work/report.png"
render --print-to-pdf="$work/report.pdf"
size=$(stat -c %s "$work/report.png")
if [ "$(head -c 4 "$work/report.png" | od -An -c | tr -d ' ')" != "211PNG" ] ||
    [ "$size" -lt 20000 ]; then
  echo "render_report: the screenshot is not a rendered page ($size bytes)"
  exit 1
fi
text=$(pdftotext -layout "$work/report.pdf" -)
for want in "Backup completed" "nightly" "requested" "sent" "unchanged" \
    "failed"; do
  grep -q "$want" <<<"$text" || {
    echo "render_report: \"$want\" is not on the rendered page:"
    echo "$text"
    exit 1
  }
done
# The counts: 5 requested, 5 sent, 0 unchanged, 0 failed, side by side.
grep -Eq '^\s*5\s+5\s+0\s+0\s*$' <<<"$text" || {
  echo "render_report: the counts 5 5 0 0 are not on the rendered page:"
  echo "$text"
  exit 1
}
if [ -n "${2:-}" ]; then
  cp "$work/report.png" "$2"
fi
echo "render_report: rendered, counts shown ($size-byte screenshot)"
