/* A host written in C99 against veltrano_c.h alone: opens the virtual sensor, takes one exposure
 * into its own buffer, runs a chain file over the 16-bit frame and writes the processed image as
 * a raw file of floats. Any language that can call C functions can do the same.
 *
 *   veltrano_c_host WORKDIR CHAINFILE [OUTPUT.raw]
 */
#include <stdio.h>
#include <stdlib.h>

#include <veltrano/virtual_sensor.h>
#include <veltrano_c.h>

static int fail(const char* what, int code) {
    fprintf(stderr, "%s failed with %d: %s\n", what, code, vt_last_error());
    return 1;
}

int main(int argc, char** argv) {
    const char* workDir;
    const char* chainFile;
    const char* output;
    vt_CVeltrano* detector;
    uint32_t width = 0, height = 0;
    size_t i, count;
    float* frame = NULL;
    uint16_t* raw = NULL;
    uint16_t* processed = NULL;
    double sum = 0;
    int code, status = 1;

    if (argc < 3) {
        fprintf(stderr, "usage: veltrano_c_host WORKDIR CHAINFILE [OUTPUT.raw]\n");
        return 2;
    }
    workDir = argv[1];
    chainFile = argv[2];
    output = argc > 3 ? argv[3] : NULL;
    printf("Veltrano %s through its C interface\n", vt_version());

    /* The virtual sensor writes its own calibration; a real sensor comes with one. */
    code = VirtualSensor_WriteCalibration(workDir, 4);
    if (code != 0) {
        fprintf(stderr, "cannot write the calibration into %s (%d)\n", workDir, code);
        return 1;
    }
    detector = vt_CVeltrano_new(workDir);
    if (detector == NULL) return fail("vt_CVeltrano_new", VT_ERR_NO_MEMORY);
    if ((code = vt_CVeltrano_Initialize(detector)) != 0) {
        fail("Initialize", code);
        goto done;
    }
    if ((code = vt_CVeltrano_Connect(detector)) != 0) {
        fail("Connect", code);
        goto done;
    }
    vt_CVeltrano_GetImageSize(detector, &width, &height);

    count = (size_t)width * height;
    frame = (float*)malloc(count * sizeof *frame);
    raw = (uint16_t*)malloc(count * sizeof *raw);
    processed = (uint16_t*)malloc(count * sizeof *processed);
    if (frame == NULL || raw == NULL || processed == NULL) {
        fprintf(stderr, "out of memory\n");
        goto done;
    }

    /* Delay 0 ms, trigger mode 6, threshold 100. The end sign and progress start at 0. */
    code = vt_CVeltrano_AcqImageEx(detector, frame, count, &width, &height, 0, 6, 100);
    if (code != 0) {
        fail("AcqImageEx", code);
        goto done;
    }
    for (i = 0; i < count; ++i) {
        const float v = frame[i];
        raw[i] = (uint16_t)(v < 0 ? 0 : v > 65535 ? 65535 : v + 0.5f);
    }
    code = vt_Img_Post_Process_Chain(raw, processed, (int)width, (int)height, chainFile, NULL, 0,
                                     NULL);
    if (code != 0) {
        fail("Img_Post_Process_Chain", code);
        goto done;
    }
    for (i = 0; i < count; ++i) {
        frame[i] = processed[i];
        sum += processed[i];
    }
    printf("%lu x %lu image acquired and processed, mean %.1f\n", (unsigned long)width,
           (unsigned long)height, sum / (double)count);
    if (output != NULL) {
        if (vt_imgmat_writeRawFile(output, frame, count) != 1) {
            fail("writeRawFile", 0);
            goto done;
        }
        printf("written to %s\n", output);
    }
    status = 0;

done:
    free(frame);
    free(raw);
    free(processed);
    vt_CVeltrano_delete(detector);
    return status;
}
