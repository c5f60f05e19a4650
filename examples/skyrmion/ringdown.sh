#!/usr/bin/env bash
# The skyrmion's modes by a second route: the time integration.  Relaxes the
# example's skyrmion, solves its eight lowest modes (SOLVE_MODES), relaxes
# it again in a small field (10 Oe along x and along z), switches the field
# off and integrates the precession back towards the state of the modes for
# 20 ns (EXEC, Runge-Kutta, 0.1 ps steps).  The field along z has pulled on
# the radially symmetric modes (breathing), the one along x on those of
# azimuthal index +-1 (the two gyrations).  The spectra of d<mz>/dt and
# d<mx>/dt (Hann window) then peak at the modes' frequencies; each mode's
# frequency is printed beside the nearest peak of the spectrum that sees it.
#
#   bash examples/skyrmion/ringdown.sh [torix] [folder]
#
# About 4 minutes on two busy cores.  With a folder the run's files stay there,
# and a folder that already holds them is only analysed again.  Needs
# python3 with numpy (Debian's python3-numpy).
set -euo pipefail
here=$(cd "$(dirname "$0")" && pwd)
torix=$(realpath "${1:-$here/../../build/torix}")
if [[ -n "${2:-}" ]]; then
    mkdir -p "$2"
    cd "$2"
else
    work=$(mktemp -d)
    trap 'rm -rf "$work"' EXIT
    cd "$work"
fi
py=""
for p in python3 /usr/bin/python3; do
    if "$p" -c "import numpy" 2> /dev/null; then py=$p; break; fi
done
[[ -n "$py" ]] || { echo "ringdown.sh: needs python3 with numpy" >&2; exit 1; }
if [[ ! -s ringdown.txt || ! -s omega.txt ]]; then
cp "$here/seed.txt" .
# The model and relaxation of input.dat, then the modes and the ring-down.
sed -n '1,/^RELAX$/{p}' "$here/input.dat" > input.dat
cat >> input.dat <<'END_SCRIPT'
1 1e-9 0.05
SET_BETA
0.01
SET_GYRO
1.76e7
SOLVE_MODES
8 0 0
OMEGA_PRINT
omega.txt
ADD_EXT_FIELD
1
10 0 10
RELAX
1 1e-9 0.05
ADD_EXT_FIELD
1
-10 0 -10
SET_TIMESTEP
1e-13
EXEC
2e-8 0 ringdown.txt
END
END_SCRIPT
"$torix" > out.txt 2> err.txt || { cat err.txt; exit 1; }
fi
"$py" - <<'END_PY'
import numpy as np
gyro = 1.76e7                               # rad/(s Oe), as SET_GYRO
ghz = gyro / (2 * np.pi) / 1e9              # GHz per Oe
modes = np.loadtxt("omega.txt", ndmin=2)    # n, f (Oe), g (Oe)
traj = np.loadtxt("ringdown.txt")           # t, mx, my, mz, E
t = traj[:, 0]                              # s
dt = t[1] - t[0]
spectra = {}
for name, col in (("mx", 1), ("mz", 3)):
    d = np.diff(traj[:, col]) / dt          # the derivative drops the static step
    w = np.hanning(len(d))
    n = 16 * len(d)                         # zero padding: a finer grid to read peaks on
    s = np.abs(np.fft.rfft(d * w, n))
    f = np.fft.rfftfreq(n, dt) / 1e9        # GHz
    spectra[name] = (f, s)

def nearest_peak(f, s, f0):
    # The local maxima of the spectrum (parabola through each), nearest f0.
    i = np.where((s[1:-1] > s[:-2]) & (s[1:-1] >= s[2:]))[0] + 1
    i = i[s[i] > 1e-3 * s.max()]
    a, b, c = s[i - 1], s[i], s[i + 1]
    p = 0.5 * (a - c) / (a - 2 * b + c)
    fp = f[i] + p * (f[1] - f[0])
    k = np.argmin(np.abs(fp - f0))
    return fp[k], s[i[k]] / s.max()

print("mode  f eigen (GHz)  peak of d<mx>/dt  rel. height  peak of d<mz>/dt  rel. height")
for n, fo, g in modes:
    f0 = fo * ghz
    row = "%4d  %13.4f" % (n, f0)
    for name in ("mx", "mz"):
        fp, h = nearest_peak(*spectra[name], f0)
        row += "  %16.4f  %11.3f" % (fp, h)
    print(row)
print("spectral resolution of the 20 ns record: %.3f GHz" % (1e-9 / (t[-1] - t[0])))
END_PY
