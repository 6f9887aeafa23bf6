// The graphics families' own cases: Unproject of a singular combination with no vectors, and examples derived by hand.
#include <gtest/gtest.h>

#include "families.h"

using namespace omkt;

// A World without row 0 makes the combination singular: omkStsSingular, nothing written.
TEST(GraphicsCases, UnprojectOfASingularCombination) {
    Call c = layCall("omkmUnproject_m4v3a_32f");
    for (int j = 0; j < 4; ++j) c.set(c["World"], 0, 0, j, 0.0);
    c.expectInputs();
    EXPECT_EQ(c.run(), omkStsSingular);
    EXPECT_EQ(firstDifference(c), "");
}

TEST(GraphicsCases, ExamplesDerivedByHand) {
    float m[16], id[16], p[4];
    omkmIdentity_m4_32f(id);
    // "0 - d" subtracts: +0.0 at m21 of the rotation by +0; near = far gives the left-handed m32
    // n/(0 - 0) = +inf; near 0 gives the field-of-view builder's m32 (0 - 0*f)/f = +0.0.
    omkmRotationX_m4_32f(0.0f, m);
    EXPECT_FALSE(std::signbit(m[9]));
    omkmOrthoLH_m4_32f(2, 2, 1.5f, 1.5f, m);
    EXPECT_EQ(m[14], INFINITY);
    omkmPerspectiveFovLH_m4_32f(1.0f, 1.0f, 0.0f, 10.0f, m);
    EXPECT_TRUE(m[14] == 0 && !std::signbit(m[14]));
    // A left-handed camera at (0, 0, -5) looking at the origin, y up, only moves the scene 5 along z.
    const float eye[3] = {0, 0, -5}, at[3] = {0, 0, 0}, up[3] = {0, 1, 0};
    const float view[16] = {1, 0, 0, 0, 0, 1, 0, 0, 0, 0, 1, 0, 0, 0, 5, 1};
    omkmLookAtLH_m4_32f(eye, at, up, m);
    EXPECT_TRUE(std::equal(m, m + 16, view));
    // Identities to a 640x480 viewport: the origin to its centre, (1, 1, 1) to the top-right corner.
    const float points[2][3] = {{0, 0, 0}, {1, 1, 1}}, screen[2][3] = {{320, 240, 0}, {640, 0, 1}};
    for (int k = 0; k < 2; ++k) {
        omkmProject_m4v3_32f(id, id, id, points[k], 640, 480, 0, 1, p);
        EXPECT_TRUE(std::equal(p, p + 3, screen[k])) << p[0] << " " << p[1] << " " << p[2];
    }
    // A quarter turn about z (the axis (0, 0, 2)) takes x to y.
    const float x[3] = {1, 0, 0}, axis[3] = {0, 0, 2};
    omkmRotationAxis_v3m4_32f(axis, 1.5707964f, m);
    omkmAffineTransformNormal_m4v3_32f(m, x, p);
    EXPECT_TRUE(std::fabs(p[0]) < 1e-7f && std::fabs(p[1] - 1) < 1e-7f && p[2] == 0) << p[0] << " " << p[1];
}
