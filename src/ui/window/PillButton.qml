// A rounded command button: filled with the accent for the main command,
// outlined for the others. Focus shows as a ring.
import QtQuick
import QtQuick.Controls
import Vellatone

Button {
    id: control
    property bool primary: false
    implicitHeight: 34
    leftPadding: 16
    rightPadding: 16
    font.pixelSize: Theme.bodySize
    font.weight: Font.DemiBold
    opacity: enabled ? 1 : 0.45

    contentItem: Text {
        textFormat: Text.PlainText
        text: control.text
        font: control.font
        color: control.primary ? Theme.accentText : Theme.text
        horizontalAlignment: Text.AlignHCenter
        verticalAlignment: Text.AlignVCenter
        elide: Text.ElideRight
    }
    background: Rectangle {
        radius: height / 2
        color: control.primary ? (control.down ? Qt.darker(Theme.accent, 1.15) : Theme.accent)
             : control.down ? Theme.border
             : control.hovered ? Theme.surfaceRaised : "transparent"
        border.color: control.visualFocus ? Theme.accent : control.primary ? "transparent" : Theme.border
        border.width: control.visualFocus ? 2 : 1
    }
}
