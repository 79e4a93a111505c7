// A horizontal level meter: green, amber near the top, red at the very top.
import QtQuick
import Vellatone

Item {
    id: meter
    property real level: 0   // 0 to 1 over the last 60 dB
    property bool active: true
    implicitHeight: 6
    implicitWidth: 120
    Accessible.role: Accessible.ProgressBar
    Accessible.name: qsTr("Level")

    Rectangle {
        anchors.fill: parent
        radius: height / 2
        color: Theme.meterTrack
    }
    Rectangle {
        id: bar
        height: parent.height
        radius: height / 2
        width: Math.max(0, Math.min(1, meter.level)) * parent.width
        color: !meter.active ? Theme.textMuted
             : meter.level > 0.99 ? Theme.fault   // within half a decibel of full
             : meter.level > 0.95 ? Theme.warn    // above -3 dB
             : Theme.good
        Behavior on width { NumberAnimation { duration: 90 } }
    }
}
