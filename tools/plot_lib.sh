# Shared by the plot scripts (sourced, not run): the argument and CSV checks.
#   qov_plot_args EXPECTED_HEADER "$0" "$@"   sets csv and png, or exits
qov_plot_args() {
  expected=$1
  me=$2
  shift 2
  if [ $# -lt 1 ] || [ $# -gt 2 ]; then
    echo "usage: $me file.csv [file.png]" >&2
    exit 2
  fi
  csv=$1
  png=${2:-${csv%.csv}.png}
  [ -r "$csv" ] || { echo "$me: cannot read $csv" >&2; exit 1; }
  command -v gnuplot >/dev/null || { echo "$me: gnuplot not found (apt-get install gnuplot-nox)" >&2; exit 1; }
  if [ "$(head -n 1 "$csv" | tr -d '\r')" != "$expected" ]; then
    echo "$me: $csv does not start with the header: $expected" >&2
    exit 1
  fi
  if [ "$(wc -l < "$csv")" -lt 3 ]; then
    echo "$me: $csv holds fewer than two samples" >&2
    exit 1
  fi
}
