"""Compares the film's branches in film_bv.txt and film_de.txt (written by
input.dat) with the dispersion of a film of uniform profile across its
thickness d, magnetized in-plane by H along x (Oe, emu/cm^3, erg/cm, cm):

    f^2 = (H + D k^2 + 4 pi MS P sin^2 phi) (H + D k^2 + 4 pi MS (1 - P)),
    D = 2 A / MS,  P = 1 - (1 - exp(-k d)) / (k d),

phi the angle between k and M (0: backward volume, 90 degrees: Damon-
Eshbach), and with the exchange of the six-point stencil of cells h along k,
k^2 -> (2/h)^2 sin^2(k h / 2).  Frequencies in GHz with 2.8 MHz/Oe, as the
tables.  Run it in the folder where input.dat ran: python3 formula.py"""
import math

H, MS, A, d, h = 1000.0, 800.0, 1.3e-6, 20e-7, 2e-7
D = 2 * A / MS


def formula(k, sin2phi, stencil):
    k2 = (2 / h * math.sin(k * h / 2)) ** 2 if stencil else k * k
    P = 1 - (-math.expm1(-k * d)) / (k * d) if k > 0 else 0.0
    a = H + D * k2 + 4 * math.pi * MS * P * sin2phi
    b = H + D * k2 + 4 * math.pi * MS * (1 - P)
    return math.sqrt(a * b) * 2.8e-3


for name, sin2phi, label in (("film_bv.txt", 0.0, "backward volume, k || M"),
                             ("film_de.txt", 1.0, "Damon-Eshbach, k perp M")):
    print(label)
    print("  k (rad/um)   TORIX (GHz)  formula (GHz)  difference  formula, stencil exchange  difference")
    for line in open(name):
        if line.startswith("#"):
            continue
        v = [float(x) for x in line.split()]
        k = v[3]
        f = v[6]
        f0, f1 = formula(k, sin2phi, False), formula(k, sin2phi, True)
        print("  %9.1f   %11.5f  %12.5f  %+9.4f %%  %12.5f  %+9.4f %%"
              % (k * 1e-4, f, f0, 100 * (f - f0) / f0, f1, 100 * (f - f1) / f1))
