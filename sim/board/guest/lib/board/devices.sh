# Sourced by rcS: the board's GPIO pins and RS-485 direction device, when the image carries their
# drivers (sim/board/build-guest-devices). board-gpio sets the inputs' levels afterwards.
if [ -e /lib/modules/board/gpio-mockup.ko ]; then
    board-gpio load /lib/modules/board/gpio-mockup.ko 2>>/run/board/modules.err
fi
if [ -x /bin/rs485cuse ]; then
    rs485cuse --journal /run/board/rs485.journal </dev/null >/dev/null 2>>/run/board/rs485.err &
    tries=0
    until [ -e /dev/rs485_Ctrl ] || [ $tries -ge 50 ]; do sleep 0.1; tries=$((tries + 1)); done
fi
