/* The C99 part of the C interface's tests (c_host.c), callable from the C++ tests. */
#ifndef VELTRANO_TESTS_C_HOST_H
#define VELTRANO_TESTS_C_HOST_H

#include <stddef.h>
#include <stdint.h>

#include "veltrano_c.h"

#ifdef __cplusplus
extern "C" {
#endif

struct c_host_result {
    int acquisition_code;
    int end_sign;
    uint32_t width;
    uint32_t height;
    double mean_frame;
    int chain_code;
    size_t chain_text_length;
    double mean_processed;
};

/* Initialises and connects a detector on workDir, acquires into a buffer of the sensor's image
 * size, rounds the frame to 16 bits and runs the chain file on it. Returns the first failing
 * code (0 when everything ran); result tells how far it got. */
int c_host_acquire_and_process(const char* workDir, const char* chainFile,
                               struct c_host_result* result);

/* Fills three records with their defaults; 1 when all three were filled. */
int c_host_default_records(vt_claheParam* clahe, vt_struAceGammaParam* ace,
                           vt_struImageBaseParam* base);

#ifdef __cplusplus
}
#endif

#endif
