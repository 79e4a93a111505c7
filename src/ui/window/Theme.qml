// Colours and measures shared by every part of the window. Dark follows the
// "appearance" preference, and on Auto the desktop's own palette.
pragma Singleton
import QtQuick
import Vellatone

QtObject {
    id: theme

    readonly property SystemPalette system: SystemPalette { colorGroup: SystemPalette.Active }
    readonly property bool desktopDark: system.window.hslLightness < 0.5
    readonly property bool dark: App.appearance === "Dark"
                                 || (App.appearance !== "Light" && desktopDark)

    readonly property color background: dark ? "#17191d" : "#f3f4f6"
    readonly property color surface: dark ? "#212429" : "#ffffff"
    readonly property color surfaceRaised: dark ? "#2a2e34" : "#f8f9fb"
    readonly property color border: dark ? "#343941" : "#dde0e5"
    readonly property color text: dark ? "#e8eaed" : "#1d2026"
    readonly property color textMuted: dark ? "#9aa1ab" : "#646b76"
    readonly property color accent: dark ? "#6ea0ff" : "#2f6fe4"
    readonly property color accentText: "#ffffff"
    readonly property color good: dark ? "#4cc38a" : "#1f9d62"
    readonly property color warn: dark ? "#e9b04d" : "#b9770e"
    readonly property color fault: dark ? "#f07167" : "#cf3b30"
    readonly property color meterTrack: dark ? "#30343b" : "#e7e9ed"

    // The row's own colour: each next `hue` a golden-ratio step round the
    // wheel from blue, so that neighbours differ and none starts as red.
    function rowColour(hue) {
        const h = ((0.6 + hue * 0.618) % 1 + 1) % 1
        return Qt.hsla(h, dark ? 0.55 : 0.6, dark ? 0.62 : 0.5, 1)
    }

    readonly property int gap: 8
    readonly property int pad: 16
    readonly property int radius: 8
    readonly property int titleSize: 15
    readonly property int bodySize: 13
    readonly property int smallSize: 11
}
