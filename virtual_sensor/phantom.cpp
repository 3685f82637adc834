#include "phantom.h"

#include <algorithm>
#include <cmath>

#include "random.h"

namespace virtual_sensor {
namespace {

// Attenuation per unit of path length (the thickest part of a crown is one unit).
constexpr double kDentine = 1.25;
constexpr double kEnamel = 3.0;
constexpr double kPulp = 0.25;  // pulp is soft tissue
constexpr double kSocketWall = 0.35;

double Smoothstep(double edge0, double edge1, double x) {
    const double t = std::clamp((x - edge0) / (edge1 - edge0), 0.0, 1.0);
    return t * t * (3.0 - 2.0 * t);
}

double FourthPower(double x) {
    const double square = x * x;
    return square * square;
}

// Path length through an elliptical cross-section of half-width halfWidth and depth depth, at
// horizontal offset dx from its centre.
double EllipsePath(double dx, double halfWidth, double depth) {
    if (halfWidth <= 0.0) {
        return 0.0;
    }
    const double q = dx / halfWidth;
    return q * q >= 1.0 ? 0.0 : depth * std::sqrt(1.0 - q * q);
}

struct Tooth {
    double centre;     // column of the tooth axis at the neck
    double tilt;       // columns the axis moves per row
    double top;        // row of the cusp tips
    double neck;       // row of the enamel-root junction
    double apex;       // row of the root tips
    double crownHalf;  // half-width of the crown at its widest
    double neckHalf;   // half-width at the neck
    double enamel;     // enamel thickness at the crown's side
    double pixel;      // one pixel of the 1200-column sensor, in this frame's columns
    int roots;         // 1 (premolar) or 2 (molar)
    // The frame is rendered row by row, and the crown's half width and the root's taper depend
    // on the row only: each is kept for the row it was last computed for.
    mutable double halfWidthRow = -1.0;
    mutable double halfWidth = 0.0;
    mutable double taperRow = -1.0;
    mutable double taper = 0.0;
};

// What one tooth contributes to a pixel.
struct ToothSample {
    double enamel = 0.0;  // path lengths
    double dentine = 0.0;
    double pulp = 0.0;
    double root = 0.0;          // dentine path below the neck, where it displaces bone
    double rootDistance = 1e9;  // distance outside the nearest root outline, pixels
};

double CrownHalfWidthOfRow(const Tooth& t, double y) {
    const double s = (y - t.top) / (t.neck - t.top);
    if (s < 0.35) {
        const double r = (0.35 - s) / 0.35;
        return t.crownHalf * std::sqrt(1.0 - 0.5 * r * r);
    }
    return t.crownHalf - (t.crownHalf - t.neckHalf) * std::pow((s - 0.35) / 0.65, 1.5);
}

double CrownHalfWidth(const Tooth& t, double y) {
    if (y != t.halfWidthRow) {
        t.halfWidth = CrownHalfWidthOfRow(t, y);
        t.halfWidthRow = y;
    }
    return t.halfWidth;
}

// How the root narrows towards its tip, at relative depth s of this row.
double RootTaper(const Tooth& t, double y, double s) {
    if (y != t.taperRow) {
        t.taper = std::sqrt(std::max(0.0, 1.0 - std::pow(s, 6.0)));
        t.taperRow = y;
    }
    return t.taper;
}

// The occlusal surface: two cusp tips with a fissure between them.
double OcclusalRow(const Tooth& t, double dx) {
    const double depth = 0.05 * (t.neck - t.top);
    const double c = std::cos(3.14159265358979 * dx / (1.1 * t.crownHalf));
    return t.top + depth * c * c;
}

// Path length through the crown outline shrunk by inset (0 for the outer surface); occlusal is
// OcclusalRow(t, dx), which the outer and the inner outline share.
double CrownPath(const Tooth& t, double dx, double y, double occlusal, double inset) {
    const double top = occlusal + inset;
    if (y < top || y > t.neck) {
        return 0.0;
    }
    const double rounding = 0.25 * (t.neck - t.top);
    const double vertical = std::sqrt(std::min(1.0, (y - top) / rounding));
    // The crown is deepest where it is widest and narrows to the root's depth at the neck, so
    // that crown and root join without a step.
    const double half = CrownHalfWidth(t, y);
    const double depth =
        (0.8 + 0.2 * std::clamp((half - t.neckHalf) / (t.crownHalf - t.neckHalf), 0.0, 1.0)) *
        (1.0 - inset / t.crownHalf);
    return vertical * EllipsePath(dx, half - inset, depth);
}

void SampleRoots(const Tooth& t, double dx, double y, ToothSample& out) {
    const double length = t.apex - t.neck;
    const double s = (y - t.neck) / length;
    if (s < 0.0) {
        return;
    }
    const double spread = t.roots == 2 ? Smoothstep(0.0, 0.35, s) : 0.0;
    const double slim = 1.0 - 0.45 * spread;
    for (int r = 0; r < t.roots; ++r) {
        const double side = t.roots == 2 ? (r == 0 ? -1.0 : 1.0) : 0.0;
        const double axis = side * t.neckHalf * (0.5 * spread + 0.15 * s);
        const double local = dx - axis;
        if (s <= 1.0) {
            const double half = t.neckHalf * slim * (1.0 - 0.65 * s) * RootTaper(t, y, s);
            const double depth = 0.8 * (1.0 - 0.5 * s);
            out.root = std::max(out.root, EllipsePath(local, half, depth));
            // The pulp chamber narrows down the root trunk; in a molar it ends at the floor
            // above the fork, from which one canal runs into each root.
            const double opening = t.roots == 1 ? 1.0 : Smoothstep(0.06, 0.16, s);
            const double canalHalf =
                s < 0.95 ? opening * std::max(1.5 * t.pixel, 0.25 * half) : 0.0;
            const double chamber =
                0.36 * t.neckHalf *
                (t.roots == 1 ? std::max(0.0, 1.0 - s / 0.12) : 1.0 - Smoothstep(0.02, 0.2, s));
            out.pulp = std::max({out.pulp, EllipsePath(local, canalHalf, 0.45 * depth),
                                 EllipsePath(dx, chamber, 0.35)});
            out.rootDistance = std::min(out.rootDistance, (std::fabs(local) - half) / t.pixel);
        } else {
            const double tipAxis = side * t.neckHalf * (0.5 + 0.15);
            const double ddx = dx - (t.roots == 2 ? tipAxis : 0.0);
            const double ddy = y - t.apex;
            out.rootDistance =
                std::min(out.rootDistance, std::sqrt(ddx * ddx + ddy * ddy) / t.pixel);
        }
    }
    out.dentine += out.root;
}

ToothSample SampleTooth(const Tooth& t, double x, double y) {
    ToothSample out;
    // Above the cusps there is nothing of the tooth. Sideways, the roots reach furthest: their
    // axes lie at most 0.65 neck widths out and they are at most a neck width wide, and the
    // distance to them matters within 7 pixels only.
    if (y < t.top) {
        return out;
    }
    const double dx = x - t.centre - t.tilt * (y - t.neck);
    if (std::fabs(dx) > 1.65 * t.neckHalf + 8.0 * t.pixel) {
        return out;
    }
    if (y <= t.neck) {
        const double s = (y - t.top) / (t.neck - t.top);
        // Enamel thins out towards the neck.
        const double enamel = t.enamel * std::clamp((1.0 - s) / 0.4, 0.0, 1.0);
        const double occlusal = OcclusalRow(t, dx);
        const double outer = CrownPath(t, dx, y, occlusal, 0.0);
        const double inner = enamel > 0.0 ? CrownPath(t, dx, y, occlusal, enamel) : outer;
        out.enamel = std::max(0.0, outer - inner);
        out.dentine = inner;
        // The pulp chamber fills the lower crown.
        const double chamber =
            0.36 * t.neckHalf * std::sqrt(std::clamp((s - 0.42) / 0.15, 0.0, 1.0));
        out.pulp = EllipsePath(dx, chamber, 0.35);
    }
    SampleRoots(t, dx, y, out);
    return out;
}

}  // namespace

std::vector<float> RenderPhantom(int columns, int rows, uint32_t seed) {
    std::vector<float> scene(static_cast<size_t>(columns) * static_cast<size_t>(rows), 1.0f);
    if (columns <= 0 || rows <= 0) {
        return scene;
    }
    Random random(Mix64(0x5CE7E000ull ^ seed));
    const double w = columns;
    const double h = rows;
    const double pixel = w / 1200.0;

    Tooth teeth[3];
    for (int j = 0; j < 3; ++j) {
        Tooth& t = teeth[j];
        t.centre = w * (0.5 + 0.34 * (j - 1) + random.uniform(-0.02, 0.02));
        t.tilt = random.uniform(-0.04, 0.04) * (w / h);
        t.top = h * random.uniform(0.09, 0.12);
        t.neck = h * random.uniform(0.36, 0.39);
        t.apex = h * random.uniform(0.84, 0.90);
        t.crownHalf = w * 0.165 * random.uniform(0.95, 1.05);
        t.neckHalf = 0.68 * t.crownHalf;
        t.enamel = 0.12 * t.crownHalf;
        t.pixel = pixel;
        t.roots = j == 0 ? 1 : 2;
    }
    const double neckRow = (teeth[0].neck + teeth[1].neck + teeth[2].neck) / 3.0;
    const uint64_t tissueSeed = Mix64(seed ^ 0x7155E0ull);
    const uint64_t boneSeed = Mix64(seed ^ 0xB0E0ull);
    const double trabecula = 22.0 * pixel;  // marrow spaces of about half a millimetre

    // Alveolar bone lies below the crest, which rises between the teeth; the crest depends on the
    // column only.
    std::vector<double> crests(static_cast<size_t>(columns));
    const LatticeColumns crestColumns(columns, w / 10.0);
    ValueNoiseRows(tissueSeed + 1, crestColumns).row(0.5, crests.data());
    for (int column = 0; column < columns; ++column) {
        const double x = column;
        const double u = x / w;
        double& crest = crests[static_cast<size_t>(column)];
        crest = neckRow + 0.05 * h + 0.025 * h * std::cos(6.283185307 * (u - 0.5) / 0.34) +
                0.02 * h * (crest - 0.5);
    }

    const LatticeColumns tissueColumns(columns, w / 3.0);
    const LatticeColumns boneColumns1(columns, trabecula);
    const LatticeColumns boneColumns2(columns, 0.5 * trabecula);
    const LatticeColumns densityColumns(columns, w / 5.0);
    ValueNoiseRows tissueNoise(tissueSeed, tissueColumns);
    ValueNoiseRows boneNoise1(boneSeed, boneColumns1);
    ValueNoiseRows boneNoise2(boneSeed + 1, boneColumns2);
    ValueNoiseRows densityNoise(boneSeed + 2, densityColumns);
    std::vector<double> tissueRow(static_cast<size_t>(columns));
    std::vector<double> boneRow1(static_cast<size_t>(columns));
    std::vector<double> boneRow2(static_cast<size_t>(columns));
    std::vector<double> densityRow(static_cast<size_t>(columns));
    for (int row = 0; row < rows; ++row) {
        const double y = row;
        const double v = y / h;
        tissueNoise.row(y / (h / 3.0), tissueRow.data());
        boneNoise1.row(y / (1.3 * trabecula), boneRow1.data());
        boneNoise2.row(y / (0.6 * trabecula), boneRow2.data());
        densityNoise.row(y / (h / 5.0), densityRow.data());
        for (int column = 0; column < columns; ++column) {
            const double x = column;
            const double u = x / w;
            const auto c = static_cast<size_t>(column);

            // Soft tissue: thin above the crowns, gum and cheek below, thicker on one side.
            double attenuation =
                0.12 + 0.33 * Smoothstep(0.05, 0.45, v) + 0.10 * (1.0 - u) + 0.10 * (tissueRow[c] - 0.5);

            const double crest = crests[c];
            double bone = Smoothstep(crest, crest + 0.03 * h, y);
            if (bone > 0.0) {
                const double r1 = FourthPower(1.0 - std::fabs(2.0 * boneRow1[c] - 1.0));
                const double r2 = FourthPower(1.0 - std::fabs(2.0 * boneRow2[c] - 1.0));
                const double density = 0.70 + 0.30 * densityRow[c];
                bone *= density * (0.35 + 0.30 * r1 + 0.15 * r2);
            }

            double enamel = 0.0, dentine = 0.0, pulp = 0.0, root = 0.0;
            double rootDistance = 1e9;
            for (const Tooth& t : teeth) {
                const ToothSample s = SampleTooth(t, x, y);
                enamel += s.enamel;
                dentine += s.dentine;
                pulp += s.pulp;
                root = std::max(root, s.root);
                rootDistance = std::min(rootDistance, s.rootDistance);
            }
            if (bone > 0.0) {
                if (root > 0.0) {
                    bone *= 1.0 - 0.8 * std::min(1.0, root / 0.6);  // the root displaces bone
                } else if (rootDistance < 3.0) {
                    bone *= 0.3;  // ligament space: a dark seam around the root
                } else if (rootDistance < 7.0) {
                    bone += kSocketWall * Smoothstep(crest, crest + 0.03 * h, y);  // socket wall
                }
            }
            pulp = std::min(pulp, dentine);
            attenuation += bone + kEnamel * enamel + kDentine * (dentine - pulp) + kPulp * pulp;

            // The beam falls off a little towards the edges of the field.
            const double ru = u - 0.5;
            const double rv = v - 0.45;
            const double beam = 1.0 - 0.12 * (ru * ru + rv * rv);
            scene[static_cast<size_t>(row) * columns + column] =
                static_cast<float>(beam * std::exp(-attenuation));
        }
    }
    return scene;
}

}  // namespace virtual_sensor
