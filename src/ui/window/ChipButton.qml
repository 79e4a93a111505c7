// A small square toggle for a row: "M" for mute, "S" for solo. Lit in its
// own colour while on.
import QtQuick
import QtQuick.Controls
import Vellatone

Button {
    id: control
    property color onColour: Theme.accent
    checkable: true
    implicitWidth: 30
    implicitHeight: 28
    font.pixelSize: Theme.smallSize + 1
    font.weight: Font.Bold

    contentItem: Text {
        textFormat: Text.PlainText
        text: control.text
        font: control.font
        color: control.checked ? Theme.accentText : Theme.textMuted
        horizontalAlignment: Text.AlignHCenter
        verticalAlignment: Text.AlignVCenter
    }
    background: Rectangle {
        radius: 6
        color: control.checked ? control.onColour
             : control.hovered ? Theme.surfaceRaised : "transparent"
        border.color: control.visualFocus ? Theme.accent
                    : control.checked ? control.onColour : Theme.border
        border.width: control.visualFocus ? 2 : 1
    }
}
