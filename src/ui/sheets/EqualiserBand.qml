// One band's row of controls: kind, frequency, gain and Q. Every row has the
// same fixed and stretching parts, so the columns line up across bands.
import QtQuick
import QtQuick.Controls
import QtQuick.Layouts
import Vellatone.Sheets

RowLayout {
    id: row

    property QtObject controller
    property int band: 0
    property bool highlighted: false
    readonly property var value: controller ? controller.bands[band] : undefined
    readonly property string name: "Band " + (band + 1)

    spacing: 12
    Layout.fillWidth: true

    Label {
        id: number
        textFormat: Text.PlainText
        text: row.band + 1
        font.bold: row.highlighted
        color: row.highlighted ? palette.highlight : palette.windowText
        horizontalAlignment: Text.AlignHCenter
        Layout.preferredWidth: 16
    }

    ComboBox {
        id: kind
        objectName: "eqSheet.band." + row.band + ".kind"
        model: row.controller ? row.controller.kindTitles : []
        currentIndex: row.value ? row.value.kind : 0
        Layout.preferredWidth: 130
        // Only a choice made after the combo is built is an edit; while it
        // is being built its index passes through values of its own.
        property bool built: false
        Component.onCompleted: built = true
        onCurrentIndexChanged: if (built && row.value && currentIndex !== row.value.kind)
                                   row.controller.setBandKind(row.band, currentIndex)
        Accessible.name: row.name + " kind"
        Accessible.description: row.value ? row.value.detail : ""
        ToolTip.visible: hovered
        ToolTip.delay: 600
        ToolTip.text: row.value ? row.value.detail : ""
    }

    ValueSlider {
        id: frequency
        objectName: "eqSheet.band." + row.band + ".frequency"
        enabled: row.value ? row.value.kind !== 0 : false
        // Log scale: 0 is 20 Hz, 1 is 20 kHz.
        from: 0
        to: 1
        stepSize: 1 / 120
        modelValue: row.value ? Math.log(row.value.frequency / 20) / Math.log(1000) : 0
        label: row.value ? SheetFormat.hz(row.value.frequency) : ""
        accessibleName: row.name + " " + (row.value ? row.value.frequencyLabel.toLowerCase() : "frequency")
        onUserValue: v => row.controller.setBandFrequency(row.band, 20 * Math.pow(1000, v))
        onReleased: row.controller.commit()
    }

    ValueSlider {
        id: gain
        objectName: "eqSheet.band." + row.band + ".gain"
        enabled: row.value ? row.value.usesGain : false
        from: -24
        to: 24
        stepSize: 0.5
        modelValue: row.value ? row.value.gainDb : 0
        label: enabled ? SheetFormat.db(row.value.gainDb) : "\u2014"
        accessibleName: row.name + " gain"
        onUserValue: v => row.controller.setBandGainDb(row.band, v)
        onReleased: row.controller.commit()
    }

    ValueSlider {
        id: q
        objectName: "eqSheet.band." + row.band + ".q"
        enabled: row.value ? row.value.usesQ : false
        // Log scale: 0 is a Q of 0.1, 1 is 18.
        from: 0
        to: 1
        stepSize: 1 / 100
        modelValue: row.value ? Math.log(row.value.q / 0.1) / Math.log(180) : 0
        label: enabled ? row.value.q.toFixed(2) : "\u2014"
        accessibleName: row.name + " Q"
        onUserValue: v => row.controller.setBandQ(row.band, 0.1 * Math.pow(180, v))
        onReleased: row.controller.commit()
    }
}
