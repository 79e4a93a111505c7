// The master volume of every output together, with the master equaliser.
import QtQuick
import QtQuick.Controls
import QtQuick.Layouts
import Vellatone

RowLayout {
    id: bar
    signal eqRequested()
    spacing: Theme.gap

    Label {
        textFormat: Text.PlainText
        text: qsTr("Master")
        font.pixelSize: Theme.bodySize
        font.weight: Font.DemiBold
        color: Theme.text
    }
    Slider {
        objectName: "masterVolume"
        Layout.preferredWidth: 180
        from: 0
        to: 1
        value: App.masterVolume
        Accessible.name: qsTr("Master volume")
        ToolTip.visible: pressed || hovered
        ToolTip.text: Math.round(value * 100) + "%"
        onMoved: App.setMasterVolume(value)
    }
    Label {
        textFormat: Text.PlainText
        text: Math.round(App.masterVolume * 100) + "%"
        color: Theme.textMuted
        font.pixelSize: Theme.smallSize
        Layout.preferredWidth: 36
    }
    ChipButton {
        objectName: "masterEq"
        text: qsTr("EQ")
        implicitWidth: 40
        checkable: false
        enabled: App.hasSheets
        Accessible.name: qsTr("Master equaliser")
        ToolTip.visible: hovered
        ToolTip.text: qsTr("Master equaliser")
        onClicked: bar.eqRequested()
    }
}
