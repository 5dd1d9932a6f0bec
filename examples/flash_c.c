/* Reads a device's identity and writes a firmware image through the C interface, printing the
 * progress:  example_flash_c PORT IMAGE   (try it against quelworks-devsim). */
#include <quelworks/quelworks_c.h>

#include <stdio.h>

static int32_t QW_CALL show_progress(int32_t done, int32_t total, void* user) {
    int* calls = (int*)user;
    ++*calls;
    printf("\r%d of %d bytes", done, total);
    fflush(stdout);
    return 0;
}

static int fail(const char* what) {
    fprintf(stderr, "\n%s: %s\n", what, qw_last_error_message());
    return 1;
}

int main(int argc, char** argv) {
    qw_boot* boot = NULL;
    char serial[64];
    char description[256];
    int32_t type = 0, firmware = 0;
    int calls = 0;
    int status = 0;

    if (argc != 3) {
        fprintf(stderr, "usage: %s PORT IMAGE\n", argv[0]);
        return 2;
    }
    if (qw_boot_new(argv[1], 1000, 1, &boot) != QW_OK) return fail("cannot use the port");
    if (qw_boot_get_device_type(boot, &type) != QW_OK ||
        qw_boot_get_firmware_version(boot, &firmware) != QW_OK ||
        qw_boot_get_serial_number(boot, serial, sizeof serial, NULL) != QW_OK ||
        qw_boot_get_description(boot, description, sizeof description, NULL) != QW_OK) {
        status = fail("no answer from the device");
    } else {
        printf("device type %d, firmware %d, serial number %s, \"%s\"\n", type, firmware, serial,
               description);
        qw_boot_set_progress(boot, show_progress, &calls);
        if (qw_boot_enter_programming(boot) != QW_OK)
            status = fail("the device did not enter programming mode");
        else if (qw_boot_flash_file(boot, 0, argv[2]) != QW_OK)
            status = fail("flash failed");
        else
            printf("\nflashed (%d progress reports)\n", calls);
    }
    qw_boot_free(boot);
    return status;
}
