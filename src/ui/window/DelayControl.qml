// A row's delay in milliseconds, from -5000 to 5000: typed, stepped with
// the arrows (Shift for tens), or wheeled.
import QtQuick
import QtQuick.Controls
import Vellatone

SpinBox {
    id: box
    property int slot: -1
    property real delayMs: 0
    from: -5000
    to: 5000
    stepSize: 1
    editable: true
    value: Math.round(delayMs)
    implicitWidth: 128
    textFromValue: (v) => (v > 0 ? "+" : "") + v + " ms"
    valueFromText: (t) => {
        const n = parseInt(t.replace(/[^0-9+-]/g, ""))
        return isNaN(n) ? value : Math.max(from, Math.min(to, n))
    }
    validator: RegularExpressionValidator { regularExpression: /[+-]?\d{0,4}\s*(ms)?/ }
    Accessible.name: qsTr("Delay in milliseconds")
    ToolTip.visible: hovered
    ToolTip.text: qsTr("Delay: plays this much later (or earlier) than the others")
    onValueModified: App.setDelay(slot, value)
    Keys.onPressed: (event) => {
        if (event.modifiers & Qt.ShiftModifier
                && (event.key === Qt.Key_Up || event.key === Qt.Key_Down)) {
            App.setDelay(slot, value + (event.key === Qt.Key_Up ? 10 : -10))
            event.accepted = true
        }
    }
}
