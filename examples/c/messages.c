/* SPDX-License-Identifier: MIT */
/* Prints the messages the device sends of its own accord.  The library calls
 * the registered callback from its receiving thread; the callback only
 * counts, and the main thread takes the messages out of the queue.
 * Usage: vyrix-example-messages SERIAL-DEVICE [COUNT] */
#include <pthread.h>
#include <stdio.h>
#include <stdlib.h>

#include <Vyrix_Api.h>
#include <Vyrix_LLC_Api_Ex.h>

#include "example.h"

static pthread_mutex_t mutex = PTHREAD_MUTEX_INITIALIZER;
static pthread_cond_t arrived = PTHREAD_COND_INITIALIZER;
static int pending = 0;

static Vyrix_ReturnStatus on_message(void* unused) {
    (void)unused;
    pthread_mutex_lock(&mutex);
    ++pending;
    pthread_cond_signal(&arrived);
    pthread_mutex_unlock(&mutex);
    return eVYRIX_RETURN_SUCCESS;
}

int main(int argc, char** argv) {
    if (argc < 2) {
        fprintf(stderr, "usage: %s SERIAL-DEVICE [COUNT]\n", argv[0]);
        return 2;
    }
    const int wanted = argc > 2 ? atoi(argv[2]) : 3;
    void* library = NULL;
    if (failed("Vyrix_OpenLibrary", Vyrix_OpenLibrary(&library))) return 1;
    Vyrix_ConnectionInfoS info = uart_record(argv[1]);
    void* connection = NULL;
    int status = failed("Vyrix_OpenConnection", Vyrix_OpenConnection(library, &connection, info)) ||
                 failed("KtRegisterCallback", KtRegisterCallback(on_message));
    for (int shown = 0; status == 0 && shown < wanted; ++shown) {
        pthread_mutex_lock(&mutex);
        while (pending == 0) pthread_cond_wait(&arrived, &mutex);
        --pending;
        pthread_mutex_unlock(&mutex);
        BYTE payload[KT_XLNK_MAX_PAYLOAD];
        KtXlnkMsgS msg = {0};
        msg.pPayload = payload;
        msg.payloadLen = sizeof payload;
        status = failed("KtRemoveConnectionlessMsg", KtRemoveConnectionlessMsg(&msg));
        if (status != 0) break;
        printf("message %d from %u:", shown + 1, msg.sourceID);
        for (unsigned i = 0; i < msg.payloadLen; ++i) printf(" %02X", payload[i]);
        printf("\n");
    }
    if (connection != NULL) Vyrix_CloseConnection(connection);
    Vyrix_CloseLibrary(library);
    return status;
}
