/* The smallest program on libudsoverzelko: read the DTCs of one ECU.
 * Build: cc minimal.c $(pkg-config --cflags --libs udsoverzelko) */
#include <stdio.h>
#include <udsoverzelko.h>

int main(void) {
    BrokerConfig broker = {.broker_ip = "localhost",
                           .port = 8883,
                           .node_address = "app",
                           .cert_path = "/etc/uoz/pki/app",
                           .debug_level = UOZ_LOG_ERR};
    UDSOverZelkoHandle *uds = UDSOverZelko_Init(&broker, "/etc/uoz/ecus.json");
    if (uds == NULL)
        return 1;
    DTCBuffer dtcs = {0};
    int bytes = UDSOverZelko_ReadDTCInfo(uds, 0x7E0, 0x02 /* by status mask */, 0xFF, &dtcs);
    for (int i = 0; bytes >= 0 && i < dtcs.count; ++i) {
        DTCBufferEntry *e = dtcs.entries[i];
        if (e == NULL)
            continue;
        printf("%s:", e->ecu_name ? e->ecu_name : "?");
        for (int b = 0; b < e->length; ++b)
            printf(" %02X", e->data[b]);
        printf("\n");
    }
    UDSOverZelko_FreeDTCBuffer(&dtcs);
    UDSOverZelko_Terminate(uds);
    return bytes < 0;
}
