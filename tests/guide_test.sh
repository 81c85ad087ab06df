#!/usr/bin/env bash
# Every message of the library stands in the guide: the longest piece of its text between what is
# filled in.
#
#   guide_test.sh SOURCE
set -euo pipefail
cd "$1"

# One message a line: from the first literal with a word in each call that logs.
# shellcheck disable=SC2016
messages() {
  find src platform/host/src -name '*.cpp' -o -name '*.h' | LC_ALL=C sort | xargs perl -0777 -ne '
    while (/(?:android_log_print\s*\(|\bP?LOG\(ERROR\)|PrintLine\(|LogStepFailure\()([^;]*);/g) {
      my @literals = $1 =~ /"((?:[^"\\]|\\.)*)"/g;
      my @texts = grep { /[a-z]{3}/ } map { s/\\n//gr } @literals;
      my ($text) = sort { length($b) <=> length($a) }
                   map { s/^\s+|\s+$//gr } split(/%[-\d.]*l*[a-z]/, $texts[0] // "");
      print "$text\n" if defined $text && length($text) > 3;
    }'
}

mapfile -t texts < <(messages)
((${#texts[@]} > 30)) || { echo "only ${#texts[@]} messages were found in the sources"; exit 1; }
missing=0
for text in "${texts[@]}"; do
  grep -qF -- "$text" docs/guide.md || { echo "docs/guide.md does not explain: $text"; missing=1; }
done
exit $missing
