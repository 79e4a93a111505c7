// How the sheets write numbers.
pragma Singleton
import QtQuick

QtObject {
    function hz(v) {
        if (v >= 1000)
            return (v >= 10000 ? (v / 1000).toFixed(1) : (v / 1000).toFixed(2)) + " kHz"
        return Math.round(v) + " Hz"
    }

    function db(v) {
        const s = (Math.abs(v) < 0.05 ? 0 : v).toFixed(1)
        return (v >= 0.05 ? "+" : "") + s + " dB"
    }
}
