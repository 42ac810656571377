#!/usr/bin/env bash
# Every C++ file is formatted as .clang-format says. Version 14 alone: another one would format otherwise.
set -euo pipefail
cd "$(dirname -- "$0")/../.."

folders=(Sources Tests Benchmarks Examples Fuzz)

# Tracked and new files; without git (an unpacked archive) all files.
mapfile -d '' -t files < <(
  { git ls-files -z --cached --others --exclude-standard -- "${folders[@]}" 2>/dev/null ||
    find "${folders[@]}" -type f -print0 2>/dev/null || true; } |
    grep -zE '\.(h|hpp|inl|cc|cpp)$' | sort -zu)

present=()
for file in "${files[@]}"; do
  [[ -e $file ]] && present+=("$file")  # deleted, but still in the index
done
if ((${#present[@]} == 0)); then
  echo "check_format: found no C++ file" >&2
  exit 1
fi
exec clang-format-14 --dry-run -Werror "${present[@]}"
