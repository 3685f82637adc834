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
};

// What one tooth contributes to a pixel.
struct ToothSample {
    double enamel = 0.0;  // path lengths
    double dentine = 0.0;
    double pulp = 0.0;
    double root = 0.0;          // dentine path below the neck, where it displaces bone
    double rootDistance = 1e9;  // distance outside the nearest root outline, pixels
};

// Of the distance to a root, only less than this many pixels matters (see RenderPhantom).
constexpr double kRootDistanceReach = 7.0;

double CrownHalfWidth(const Tooth& t, double y) {
    const double s = (y - t.top) / (t.neck - t.top);
    if (s < 0.35) {
        const double r = (0.35 - s) / 0.35;
        return t.crownHalf * std::sqrt(1.0 - 0.5 * r * r);
    }
    return t.crownHalf - (t.crownHalf - t.neckHalf) * std::pow((s - 0.35) / 0.65, 1.5);
}

// Depth of the crown outline shrunk by inset, at a row where the crown is half wide. The crown is
// deepest where it is widest and narrows to the root's depth at the neck, so that crown and root
// join without a step.
double CrownDepth(const Tooth& t, double half, double inset) {
    return (0.8 + 0.2 * std::clamp((half - t.neckHalf) / (t.crownHalf - t.neckHalf), 0.0, 1.0)) *
           (1.0 - inset / t.crownHalf);
}

// The occlusal surface: two cusp tips with a fissure between them.
double OcclusalRow(const Tooth& t, double dx) {
    const double depth = 0.05 * (t.neck - t.top);
    return t.top + depth * CosSquared(3.14159265358979 * dx / (1.1 * t.crownHalf));
}

// Path length through the crown outline shrunk by inset (0 for the outer surface), at a row
// where the crown is half wide and the outline depth deep; occlusal is OcclusalRow(t, dx), which
// the outer and the inner outline share.
double CrownPath(const Tooth& t, double dx, double y, double occlusal, double inset, double half,
                 double depth) {
    const double top = occlusal + inset;
    if (y < top || y > t.neck) {
        return 0.0;
    }
    // The top edge is rounded off; a quarter of the crown's height below it the outline is full.
    const double rounding = 0.25 * (t.neck - t.top);
    const double path = EllipsePath(dx, half - inset, depth);
    return y - top >= rounding ? path : std::sqrt(std::min(1.0, (y - top) / rounding)) * path;
}

// What of a tooth depends on the row alone, worked out once per row so that each pixel pays only
// for what depends on its column.
struct ToothRow {
    const Tooth* t = nullptr;
    double y = 0.0;
    double shift = 0.0;  // how far the axis has moved at this row
    double reach = 0.0;  // farther from the axis, the tooth adds nothing
    bool crown = false;  // between the cusp tips and the neck
    double crownHalf = 0.0;
    double enamel = 0.0;  // enamel thickness, thinning out towards the neck
    double outerDepth = 0.0;
    double innerDepth = 0.0;
    double crownChamber = 0.0;    // half-width of the pulp chamber in the crown
    bool roots = false;           // below the neck, and not so far below the tips that they matter
    bool pastApex = false;        // below the tips: only the distance to them counts
    double apexRows = 0.0;        // rows below the tips
    double axis[2] = {0.0, 0.0};  // each root's axis, from the tooth's
    double tipAxis[2] = {0.0, 0.0};  // each root tip's column, from the tooth's axis
    double rootHalf = 0.0;
    double rootDepth = 0.0;
    double canalHalf = 0.0;
    double rootChamber = 0.0;  // half-width of the pulp chamber in the root trunk
    double rootReach = 0.0;    // farther from a root's axis, the root adds nothing that counts
};

ToothRow RowOfTooth(const Tooth& t, double y) {
    ToothRow row;
    row.t = &t;
    row.y = y;
    // Above the cusps there is nothing of the tooth.
    if (y < t.top) {
        return row;
    }
    row.shift = t.tilt * (y - t.neck);
    // Sideways, the roots reach furthest: their axes lie at most 0.65 neck widths out and they
    // are at most a neck width wide, and the distance to them matters within 7 pixels only.
    row.reach = 1.65 * t.neckHalf + 8.0 * t.pixel;
    if (y <= t.neck) {
        row.crown = true;
        const double s = (y - t.top) / (t.neck - t.top);
        row.enamel = t.enamel * std::clamp((1.0 - s) / 0.4, 0.0, 1.0);
        row.crownHalf = CrownHalfWidth(t, y);
        row.outerDepth = CrownDepth(t, row.crownHalf, 0.0);
        row.innerDepth = CrownDepth(t, row.crownHalf, row.enamel);
        // The pulp chamber fills the lower crown.
        row.crownChamber = 0.36 * t.neckHalf * std::sqrt(std::clamp((s - 0.42) / 0.15, 0.0, 1.0));
    }

    const double length = t.apex - t.neck;
    const double s = (y - t.neck) / length;
    if (s < 0.0) {
        return row;
    }
    row.roots = true;
    const double spread = t.roots == 2 ? Smoothstep(0.0, 0.35, s) : 0.0;
    const double slim = 1.0 - 0.45 * spread;
    for (int r = 0; r < t.roots; ++r) {
        const double side = t.roots == 2 ? (r == 0 ? -1.0 : 1.0) : 0.0;
        row.axis[r] = side * t.neckHalf * (0.5 * spread + 0.15 * s);
        row.tipAxis[r] = t.roots == 2 ? side * t.neckHalf * (0.5 + 0.15) : 0.0;
    }
    if (s > 1.0) {
        row.pastApex = true;
        row.apexRows = y - t.apex;
        // No pixel of this row lies near enough to a tip to matter.
        row.roots = row.apexRows < (kRootDistanceReach + 1.0) * t.pixel;
        return row;
    }
    // The root narrows towards its tip.
    const double taper = std::sqrt(std::max(0.0, 1.0 - std::pow(s, 6.0)));
    row.rootHalf = t.neckHalf * slim * (1.0 - 0.65 * s) * taper;
    row.rootDepth = 0.8 * (1.0 - 0.5 * s);
    // The pulp chamber narrows down the root trunk; in a molar it ends at the floor above the
    // fork, from which one canal runs into each root.
    const double opening = t.roots == 1 ? 1.0 : Smoothstep(0.06, 0.16, s);
    row.canalHalf = s < 0.95 ? opening * std::max(1.5 * t.pixel, 0.25 * row.rootHalf) : 0.0;
    row.rootChamber =
        0.36 * t.neckHalf *
        (t.roots == 1 ? std::max(0.0, 1.0 - s / 0.12) : 1.0 - Smoothstep(0.02, 0.2, s));
    row.rootReach = std::max(row.rootHalf, row.canalHalf) + (kRootDistanceReach + 1.0) * t.pixel;
    return row;
}

void SampleRoots(const ToothRow& row, double dx, ToothSample& out) {
    const Tooth& t = *row.t;
    if (row.pastApex) {
        const double ddy = row.apexRows;
        for (int r = 0; r < t.roots; ++r) {
            const double ddx = dx - row.tipAxis[r];
            out.rootDistance =
                std::min(out.rootDistance, std::sqrt(ddx * ddx + ddy * ddy) / t.pixel);
        }
    } else {
        out.pulp = std::max(out.pulp, EllipsePath(dx, row.rootChamber, 0.35));
        for (int r = 0; r < t.roots; ++r) {
            const double local = dx - row.axis[r];
            // Farther out, the root has no path here and its distance is beyond what matters.
            if (std::fabs(local) >= row.rootReach) {
                continue;
            }
            out.root = std::max(out.root, EllipsePath(local, row.rootHalf, row.rootDepth));
            out.pulp = std::max(out.pulp, EllipsePath(local, row.canalHalf, 0.45 * row.rootDepth));
            out.rootDistance =
                std::min(out.rootDistance, (std::fabs(local) - row.rootHalf) / t.pixel);
        }
    }
    out.dentine += out.root;
}

ToothSample SampleTooth(const ToothRow& row, double x) {
    ToothSample out;
    if (!row.crown && !row.roots) {
        return out;
    }
    const Tooth& t = *row.t;
    const double dx = x - t.centre - row.shift;
    if (std::fabs(dx) > row.reach) {
        return out;
    }
    if (row.crown) {
        // Beyond the crown's half width neither outline has a path.
        if (std::fabs(dx) < row.crownHalf) {
            const double occlusal = OcclusalRow(t, dx);
            const double outer =
                CrownPath(t, dx, row.y, occlusal, 0.0, row.crownHalf, row.outerDepth);
            const double inner = row.enamel > 0.0 ? CrownPath(t, dx, row.y, occlusal, row.enamel,
                                                              row.crownHalf, row.innerDepth)
                                                  : outer;
            out.enamel = std::max(0.0, outer - inner);
            out.dentine = inner;
        }
        out.pulp = EllipsePath(dx, row.crownChamber, 0.35);
    }
    if (row.roots) {
        SampleRoots(row, dx, out);
    }
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

    // Alveolar bone lies below the crest, which rises between the teeth, and has its full density
    // from 0.03 h below it. The crest depends on the column only, as do the soft tissue's
    // thickening towards one side and the (squared) horizontal distance from the beam's centre.
    std::vector<double> crests(static_cast<size_t>(columns));
    std::vector<double> boneFull(static_cast<size_t>(columns));
    std::vector<double> tissueOfColumn(static_cast<size_t>(columns));
    std::vector<double> columnOffCentre(static_cast<size_t>(columns));
    const LatticeColumns crestColumns(columns, w / 10.0);
    ValueNoiseRows(tissueSeed + 1, crestColumns).row(0.5, crests.data());
    for (int column = 0; column < columns; ++column) {
        const double x = column;
        const double u = x / w;
        const auto c = static_cast<size_t>(column);
        double& crest = crests[c];
        crest = neckRow + 0.05 * h + 0.025 * h * std::cos(6.283185307 * (u - 0.5) / 0.34) +
                0.02 * h * (crest - 0.5);
        boneFull[c] = crest + 0.03 * h;
        tissueOfColumn[c] = 0.10 * (1.0 - u);
        const double ru = u - 0.5;
        columnOffCentre[c] = ru * ru;
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
    std::vector<double> attenuationRow(static_cast<size_t>(columns));
    for (int row = 0; row < rows; ++row) {
        const double y = row;
        const double v = y / h;
        ToothRow toothRows[3];
        for (int j = 0; j < 3; ++j) {
            toothRows[j] = RowOfTooth(teeth[j], y);
        }
        // Soft tissue: thin above the crowns, gum and cheek below, thicker on one side.
        const double tissueOfRow = 0.12 + 0.33 * Smoothstep(0.05, 0.45, v);
        const double rv = v - 0.45;
        tissueNoise.row(y / (h / 3.0), tissueRow.data());
        boneNoise1.row(y / (1.3 * trabecula), boneRow1.data());
        boneNoise2.row(y / (0.6 * trabecula), boneRow2.data());
        densityNoise.row(y / (h / 5.0), densityRow.data());
        for (int column = 0; column < columns; ++column) {
            const double x = column;
            const auto c = static_cast<size_t>(column);

            double attenuation = tissueOfRow + tissueOfColumn[c] + 0.10 * (tissueRow[c] - 0.5);

            // The ramp from the crest down is 1 from boneFull on; the test spares the division.
            const double crest = crests[c];
            const double boneRamp = y >= boneFull[c] ? 1.0
                                    : y > crest      ? Smoothstep(crest, boneFull[c], y)
                                                     : 0.0;
            double bone = boneRamp;
            if (bone > 0.0) {
                const double r1 = FourthPower(1.0 - std::fabs(2.0 * boneRow1[c] - 1.0));
                const double r2 = FourthPower(1.0 - std::fabs(2.0 * boneRow2[c] - 1.0));
                const double density = 0.70 + 0.30 * densityRow[c];
                bone *= density * (0.35 + 0.30 * r1 + 0.15 * r2);
            }

            double enamel = 0.0, dentine = 0.0, pulp = 0.0, root = 0.0;
            double rootDistance = 1e9;
            for (const ToothRow& t : toothRows) {
                const ToothSample s = SampleTooth(t, x);
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
                } else if (rootDistance < kRootDistanceReach) {
                    bone += kSocketWall * boneRamp;  // socket wall
                }
            }
            pulp = std::min(pulp, dentine);
            attenuation += bone + kEnamel * enamel + kDentine * (dentine - pulp) + kPulp * pulp;

            attenuationRow[c] = attenuation;
        }
        // The transmitted fraction, apart from the rest: this loop vectorises.
        float* sceneRow = &scene[static_cast<size_t>(row) * columns];
        const double* attenuationOfColumn = attenuationRow.data();
        const double* offCentreOfColumn = columnOffCentre.data();
        for (int column = 0; column < columns; ++column) {
            // The beam falls off a little towards the edges of the field.
            const double beam = 1.0 - 0.12 * (offCentreOfColumn[column] + rv * rv);
            sceneRow[column] =
                static_cast<float>(beam * ExpOfNegative(attenuationOfColumn[column]));
        }
    }
    return scene;
}

}  // namespace virtual_sensor
