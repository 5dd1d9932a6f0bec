/* The prepared transformation through the C interface: the same bits as qw_geo_transform on a
 * distorted grid (points on calibration points and grid lines included), unusable counts, the
 * handle rules, and in-place mapping. */
#include <math.h>
#include <string.h>

#include "check.h"

#define K 6
#define N (K * K)

static void make_grid(qw_calibration_point* cal) {
    int i, j;
    for (j = 0; j < K; ++j) {
        for (i = 0; i < K; ++i) {
            qw_calibration_point* c = &cal[j * K + i];
            c->camera.x = (float)(i * 100 + (i * 7 + j * 3) % 11);
            c->camera.y = (float)(j * 80 + (i * 5 + j * 2) % 9);
            c->device.x = 50.0f + c->camera.x * 0.3f + c->camera.y * c->camera.y * 1e-4f;
            c->device.y = 20.0f + c->camera.y * 0.31f - c->camera.x * 0.01f;
        }
    }
}

int main(void) {
    qw_calibration_point cal[N];
    qw_point camera[300], device[300], one;
    qw_transform* t = NULL;
    qw_transform* bad = NULL;
    int32_t usable = -1, i, same = 0;
    unsigned seed = 12345u;

    make_grid(cal);
    for (i = 0; i < 300; ++i) {
        seed = seed * 1103515245u + 12345u;
        camera[i].x = (float)((seed >> 8) % 60000) / 100.0f - 20.0f;
        seed = seed * 1103515245u + 12345u;
        camera[i].y = (float)((seed >> 8) % 48000) / 100.0f - 20.0f;
        if (i % 5 == 1) camera[i] = cal[i % N].camera;           /* on a calibration point */
        if (i % 5 == 2) camera[i].x = cal[(i * 7) % N].camera.x; /* on its x */
    }
    camera[299].x = NAN;

    CHECK_OK(qw_transform_prepare(cal, N, &t, &usable));
    CHECK(t != NULL && usable == 1);
    CHECK_OK(qw_transform_map_many(t, camera, 300, device));
    for (i = 0; i < 300; ++i) {
        qw_point expected, single;
        CHECK_OK(qw_geo_transform(cal, N, camera[i].x, camera[i].y, &expected));
        CHECK_OK(qw_transform_map(t, camera[i].x, camera[i].y, &single));
        same += memcmp(&expected, &device[i], sizeof expected) == 0 &&
                memcmp(&expected, &single, sizeof expected) == 0;
    }
    CHECK(same == 300);
    /* qw_geo_transform_many agrees too, and mapping in place gives the same as out of place. */
    {
        qw_point many[300];
        CHECK_OK(qw_geo_transform_many(cal, N, camera, 300, many));
        CHECK(memcmp(many, device, sizeof many) == 0);
        CHECK_OK(qw_transform_map_many(t, camera, 300, camera));
        CHECK(memcmp(camera, device, sizeof many) == 0);
    }

    /* Arguments and handle rules. */
    CHECK_INVALID(qw_transform_map(t, 1.0f, 2.0f, NULL));
    CHECK_INVALID(qw_transform_map_many(t, camera, -1, device));
    CHECK_INVALID(qw_transform_map_many(t, NULL, 3, device));
    CHECK_OK(qw_transform_map_many(t, NULL, 0, NULL));
    CHECK_INVALID(qw_transform_prepare(cal, -1, &bad, NULL));
    CHECK_INVALID(qw_transform_prepare(cal, N, NULL, NULL));
    CHECK(bad == NULL);
    CHECK_OK(qw_transform_free(t));
    CHECK_INVALID(qw_transform_map(t, 1.0f, 2.0f, &one)); /* freed */
    CHECK_INVALID(qw_transform_free(t));
    CHECK_OK(qw_transform_free(NULL));
    CHECK_INVALID(qw_transform_map(NULL, 1.0f, 2.0f, &one));
    {
        qw_lut* lut = NULL; /* a handle of another kind */
        CHECK_OK(qw_lut_new(&lut));
        CHECK_INVALID(qw_transform_map((qw_transform*)lut, 1.0f, 2.0f, &one));
        CHECK_OK(qw_lut_free(lut));
    }

    /* An unusable count: accepted, usable = 0, every point (0, 0). */
    CHECK_OK(qw_transform_prepare(cal, 5, &t, &usable));
    CHECK(usable == 0);
    one.x = one.y = 9.0f;
    CHECK_OK(qw_transform_map(t, 3.0f, 4.0f, &one));
    CHECK(one.x == 0.0f && one.y == 0.0f);
    CHECK_OK(qw_transform_free(t));
    return check_report("capi_transform_test");
}
