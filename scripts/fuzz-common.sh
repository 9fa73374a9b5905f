# Shared by scripts/fuzz.sh and scripts/fuzz-long.sh (sourced, from the repository's root): builds
# the libFuzzer targets with clang under ASan/UBSan and tells each target's budget, options and
# corpus.

# A target that brings the core up does so in a fresh home per input: keep those homes in memory.
if [ -d /dev/shm ]; then export TMPDIR=/dev/shm; fi

# Builds only the fuzz targets: the libraries they need are built with them, and nothing else (the
# service, the client library) is meant to be built with the fuzzer's instrumentation.
fuzz_build() {
  scripts/install-deps.sh
  cmake --preset fuzz >/dev/null
  mapfile -t fuzz_targets < <(ninja -C build/fuzz -t targets all |
    sed -n 's/^\(fuzz_[a-z_0-9]*\): .*/\1/p' | sort -u)
  cmake --build --preset fuzz --target "${fuzz_targets[@]}"
}

# The seconds tests/fuzz/fuzz-times gives target $1 (empty when it gives none).
fuzz_budget() {
  awk -v n="$1" '$1 == n {print $2}' tests/fuzz/fuzz-times
}

# The libFuzzer options tests/fuzz/fuzz-times gives target $1: those that run it fastest.
fuzz_options() {
  awk -v n="$1" '$1 == n {for (i = 3; i <= NF; i++) printf "%s ", $i}' tests/fuzz/fuzz-times
}

# Where target $1 keeps its corpus: outside the build tree, so that it outlives a fresh checkout
# (CI's, for one) on the same machine; KESTTCS_FUZZ_CORPUS moves it.
fuzz_corpus() {
  local dir="${KESTTCS_FUZZ_CORPUS:-${HOME:-/tmp}/.cache/kesttcs/fuzz-corpus}/$1"
  mkdir -p "$dir"
  echo "$dir"
}
