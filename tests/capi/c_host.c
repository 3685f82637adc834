/* A C99 host of the C interface, compiled with -std=c99 -pedantic: one exposure on the virtual
 * sensor into a caller buffer, then a chain over it, the way a C program would do it. The C++
 * tests call it and check what it reports. */
#include "c_host.h"

#include <stdlib.h>
#include <string.h>

#include "veltrano_c.h"

int c_host_acquire_and_process(const char* workDir, const char* chainFile,
                               struct c_host_result* result) {
    vt_CVeltrano* detector;
    float* frame = NULL;
    uint16_t* raw = NULL;
    uint16_t* processed = NULL;
    uint32_t width = 0, height = 0;
    size_t i, count, textLength = 0;
    char text[64];
    int code;

    memset(result, 0, sizeof *result);
    detector = vt_CVeltrano_new(workDir);
    if (detector == NULL) return VT_ERR_NO_MEMORY;
    code = vt_CVeltrano_Initialize(detector);
    if (code == 0) code = vt_CVeltrano_Connect(detector);
    if (code == 0) code = vt_CVeltrano_GetImageSize(detector, &width, &height);
    if (code == 0) {
        count = (size_t)width * height;
        frame = (float*)malloc(count * sizeof *frame);
        raw = (uint16_t*)malloc(count * sizeof *raw);
        processed = (uint16_t*)malloc(count * sizeof *processed);
        if (frame == NULL || raw == NULL || processed == NULL) code = VT_ERR_NO_MEMORY;
    }
    if (code == 0) {
        code = vt_CVeltrano_AcqImageEx(detector, frame, count, &width, &height, 0, 6, 100);
        result->acquisition_code = code;
        result->end_sign = vt_CVeltrano_GetEndSign(detector);
        result->width = width;
        result->height = height;
    }
    if (code == 0) {
        double sum = 0;
        for (i = 0; i < count; ++i) {
            const float v = frame[i];
            raw[i] = (uint16_t)(v < 0 ? 0 : v > 65535 ? 65535 : v + 0.5f);
            sum += v;
        }
        result->mean_frame = sum / (double)count;
        code = vt_Img_Post_Process_Chain(raw, processed, (int)width, (int)height, chainFile, text,
                                         sizeof text, &textLength);
        result->chain_code = code;
        result->chain_text_length = textLength;
    }
    if (code == 0) {
        double sum = 0;
        for (i = 0; i < count; ++i) sum += processed[i];
        result->mean_processed = sum / (double)count;
    }
    free(frame);
    free(raw);
    free(processed);
    vt_CVeltrano_delete(detector);
    return code;
}

int c_host_default_records(vt_claheParam* clahe, vt_struAceGammaParam* ace,
                           vt_struImageBaseParam* base) {
    int code = vt_claheParam_init(clahe);
    if (code == 1) code = vt_struAceGammaParam_init(ace);
    if (code == 1) code = vt_struImageBaseParam_init(base);
    return code;
}
