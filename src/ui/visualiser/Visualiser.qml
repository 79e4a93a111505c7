// Visualiser { app: App; style: "Spectrum" } fills whatever space it is given.
// Colours follow the palette it inherits, so the window's Light and Dark
// reach it without anything being passed in.
import QtQuick
import Vellatone.Visualiser

VisualiserView {
    id: root

    // The window may bind its own idea of Dark here.
    property bool dark: palette.window.hslLightness < 0.5

    barColor: dark ? "#64d2ff" : "#0a84ff"
    barBaseColor: dark ? "#405e5ce6" : "#505e5ce6"
    capColor: dark ? "#f2f2f7" : "#1c1c1e"
    traceColor: dark ? "#64d2ff" : "#0a60d0"

    objectName: "visualiser"
    Accessible.role: Accessible.Graphic
    Accessible.name: style === "Scope" ? "The waveform itself, as an oscilloscope draws it"
                                       : "Frequency bars, low on the left, with peak caps"
}
